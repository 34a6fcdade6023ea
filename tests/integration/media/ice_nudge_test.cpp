// Binding requests to a far end still checking, against a real libnice agent on
// loopback; the test's own UDP socket stands for the network and drops what it likes.
#include "ice_nudge.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "loop_thread.h"

namespace libwebrtc {
namespace media {
namespace {

using Clock = std::chrono::steady_clock;

// The test's end of the network: a plain UDP socket on loopback.
class Wire {
  public:
    Wire() {
        fd_ = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        socklen_t len = sizeof a;
        getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
        port_ = ntohs(a.sin_port);
    }
    ~Wire() { close(fd_); }
    int port() const { return port_; }
    // The next datagram within `ms`; empty when none came.
    std::vector<uint8_t> Receive(int ms) {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, ms) <= 0) return {};
        std::vector<uint8_t> buf(1500);
        ssize_t n = recv(fd_, buf.data(), buf.size(), 0);
        buf.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return buf;
    }
    void Send(const std::vector<uint8_t>& data, int port) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(static_cast<uint16_t>(port));
        sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&a), sizeof a);
    }

  private:
    int fd_ = -1;
    int port_ = 0;
};

uint16_t StunType(const std::vector<uint8_t>& m) {
    return m.size() >= 20 ? static_cast<uint16_t>(m[0] << 8 | m[1]) : 0xFFFF;
}
constexpr uint16_t kBindingRequest = 0x0001, kBindingSuccess = 0x0101;

// One libnice agent with one gathered component on loopback.
struct Agent {
    Agent(GMainContext* context, bool controlling) {
        agent = nice_agent_new_full(context, NICE_COMPATIBILITY_RFC5245, NICE_AGENT_OPTION_NONE);
        g_object_set(agent, "controlling-mode", controlling, "upnp", FALSE, "ice-tcp", FALSE,
                     nullptr);
        NiceAddress local;
        nice_address_init(&local);
        nice_address_set_from_string(&local, "127.0.0.1");
        nice_agent_add_local_address(agent, &local);
        stream = nice_agent_add_stream(agent, 1);
        nice_agent_set_local_credentials(agent, stream, ufrag, pwd);
        nice_agent_attach_recv(
            agent, stream, 1, context, [](NiceAgent*, guint, guint, guint, gchar*, gpointer) {},
            nullptr);
        nice_agent_gather_candidates(agent, stream);
        for (int i = 0; i < 200 && port == 0; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            GSList* list = nice_agent_get_local_candidates(agent, stream, 1);
            if (list) port = nice_address_get_port(&static_cast<NiceCandidate*>(list->data)->addr);
            g_slist_free_full(list, reinterpret_cast<GDestroyNotify>(nice_candidate_free));
        }
    }
    ~Agent() { g_object_unref(agent); }
    // The far end: our wire's socket, with these credentials.
    void Remote(int wire_port, const char* their_ufrag, const char* their_pwd) {
        nice_agent_set_remote_credentials(agent, stream, their_ufrag, their_pwd);
        NiceCandidate* c = nice_candidate_new(NICE_CANDIDATE_TYPE_HOST);
        c->transport = NICE_CANDIDATE_TRANSPORT_UDP;
        nice_address_set_from_string(&c->addr, "127.0.0.1");
        nice_address_set_port(&c->addr, static_cast<guint>(wire_port));
        c->priority = 2130706431;
        c->stream_id = stream;
        c->component_id = 1;
        g_strlcpy(c->foundation, "1", NICE_CANDIDATE_MAX_FOUNDATION);
        remote = nice_candidate_copy(c);
        GSList* list = g_slist_append(nullptr, c);
        nice_agent_set_remote_candidates(agent, stream, 1, list);
        g_slist_free_full(list, reinterpret_cast<GDestroyNotify>(nice_candidate_free));
    }
    NiceAgent* agent = nullptr;
    guint stream = 0;
    int port = 0;
    const char* ufrag = "farU";
    const char* pwd = "farPasswordFarPassword";
    NiceCandidate* remote = nullptr;
};

// A far end whose first check went unanswered waits 500 ms to send it again; our
// request makes it check at once, and it takes our credentials.
TEST(IceNudge, FarEndChecksAgainAtOnceWhenNudged) {
    LoopThread loop;
    Wire wire;
    Agent far(loop.context(), false);
    ASSERT_NE(far.port, 0);
    far.Remote(wire.port(), "ourU", "ourPasswordOurPassword");

    std::vector<uint8_t> first = wire.Receive(2000);
    ASSERT_EQ(StunType(first), kBindingRequest) << "the far end's own check";
    Clock::time_point t0 = Clock::now();  // dropped: never answered
    std::this_thread::sleep_for(std::chrono::milliseconds(100));

    NudgeTarget target;
    target.stream = far.stream;
    target.component = 1;
    target.local_ufrag = "ourU";
    target.remote_ufrag = far.ufrag;
    target.remote_pwd = far.pwd;
    target.controlling = true;
    std::vector<uint8_t> nudge = MakeNudge(target, 0x1122334455667788ull);
    ASSERT_EQ(StunType(nudge), kBindingRequest);
    wire.Send(nudge, far.port);

    bool answered = false, checked_again = false;
    while (!(answered && checked_again)) {
        std::vector<uint8_t> m = wire.Receive(1000);
        if (m.empty()) break;
        if (StunType(m) == kBindingSuccess && std::memcmp(m.data() + 8, nudge.data() + 8, 12) == 0)
            answered = true;
        else if (StunType(m) == kBindingRequest && !checked_again) {
            checked_again = true;
            EXPECT_LT(Clock::now() - t0, std::chrono::milliseconds(400))
                << "the far end waited for its own retransmission timer";
        }
    }
    EXPECT_TRUE(answered) << "no success response: credentials refused?";
    EXPECT_TRUE(checked_again);

    // With the far end's password wrong, its agent refuses the request.
    target.remote_pwd = "notTheirPasswordAtAll1";
    wire.Send(MakeNudge(target, 1), far.port);
    for (std::vector<uint8_t> m = wire.Receive(300); !m.empty(); m = wire.Receive(300))
        EXPECT_NE(StunType(m), kBindingSuccess);
    nice_candidate_free(far.remote);
}

// On a path our agent uses, requests go every interval until the far end is heard
// or the nudge is stopped; the timer holds the agent past its holder's release.
TEST(IceNudge, EndsWhenHeardOrStopped) {
    LoopThread loop;
    Wire wire;
    auto heard = std::make_shared<FarEndHeard>();
    std::shared_ptr<IceNudge> stopped;
    {
        Agent ours(loop.context(), true);
        ASSERT_NE(ours.port, 0);
        ours.Remote(wire.port(), "wirU", "wirePasswordWirePasswd");
        ASSERT_TRUE(
            nice_agent_set_selected_remote_candidate(ours.agent, ours.stream, 1, ours.remote));
        nice_candidate_free(ours.remote);
        NudgeTarget target;
        target.stream = ours.stream;
        target.component = 1;
        target.local_ufrag = ours.ufrag;
        target.remote_ufrag = "wirU";
        target.remote_pwd = "wirePasswordWirePasswd";
        std::shared_ptr<IceNudge> nudge =
            IceNudge::Start(loop.context(), ours.agent, target, heard);

        int requests = 0;
        Clock::time_point end = Clock::now() + std::chrono::milliseconds(450);
        while (Clock::now() < end)
            if (StunType(wire.Receive(50)) == kBindingRequest) ++requests;
        EXPECT_GE(requests, 3);
        heard->component[1] = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        while (!wire.Receive(0).empty()) {
        }
        EXPECT_TRUE(wire.Receive(300).empty()) << "still nudging a far end that was heard";
        unsigned sent = nudge->sent();
        EXPECT_GE(sent, 3u);

        heard->component[1] = false;
        stopped = IceNudge::Start(loop.context(), ours.agent, target, heard);
    }  // the agent's holder lets go while the timer runs
    EXPECT_EQ(StunType(wire.Receive(500)), kBindingRequest);
    stopped->Stop();
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    while (!wire.Receive(0).empty()) {
    }
    EXPECT_TRUE(wire.Receive(300).empty()) << "still nudging after Stop";
}

}  // namespace
}  // namespace media
}  // namespace libwebrtc
