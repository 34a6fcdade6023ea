// A stranger on the LAN against a monitor registered at Kamailio: whatever it sends
// straight to the monitor's SIP port is refused before the application hears of it,
// and a flood leaves the engine's threads and descriptors as they were.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <random>
#include <string>

#include "site.h"

using siptest::Event;
using siptest::KamailioServer;
using siptest::Phone;

namespace {

std::string token() {
    static std::mt19937 rng{std::random_device{}()};
    return std::to_string(rng());
}

// A hand-written request from a stranger's socket (UDP or TCP, IPv4 or IPv6).
struct Stranger {
    bool tcp = false;
    bool v6 = false;
    int fd = -1;
    int localPort = 0;

    bool connectTo(int port) {
        int family = v6 ? AF_INET6 : AF_INET;
        fd = socket(family, (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
        if (fd < 0) return false;
        sockaddr_storage ss{};
        socklen_t len;
        if (v6) {
            auto* a = reinterpret_cast<sockaddr_in6*>(&ss);
            a->sin6_family = AF_INET6;
            a->sin6_port = htons(static_cast<uint16_t>(port));
            inet_pton(AF_INET6, "::1", &a->sin6_addr);
            len = sizeof(*a);
        } else {
            auto* a = reinterpret_cast<sockaddr_in*>(&ss);
            a->sin_family = AF_INET;
            a->sin_port = htons(static_cast<uint16_t>(port));
            inet_pton(AF_INET, "127.0.0.1", &a->sin_addr);
            len = sizeof(*a);
        }
        if (connect(fd, reinterpret_cast<sockaddr*>(&ss), len) != 0) return false;
        sockaddr_storage local{};
        socklen_t llen = sizeof(local);
        getsockname(fd, reinterpret_cast<sockaddr*>(&local), &llen);
        localPort = ntohs(reinterpret_cast<sockaddr_in*>(&local)->sin_port);
        return true;
    }
    ~Stranger() {
        if (fd >= 0) close(fd);
    }

    std::string request(const std::string& method, int port, const std::string& from,
                        const std::string& body = "") {
        std::string host = v6 ? "[::1]" : "127.0.0.1";
        return method + " sip:monitor@" + host + ":" + std::to_string(port) + " SIP/2.0\r\n" +
               "Via: SIP/2.0/" + (tcp ? "TCP " : "UDP ") + host + ":" + std::to_string(localPort) +
               ";branch=z9hG4bK" + token() + ";rport\r\n" + "Max-Forwards: 70\r\n" + "From: <" +
               from + ">;tag=" + token() + "\r\n" + "To: <sip:monitor@127.0.0.1>\r\n" +
               "Call-ID: " + token() + "@stranger\r\n" + "CSeq: 1 " + method + "\r\n" +
               "Contact: <sip:mallory@" + host + ":" + std::to_string(localPort) + ">\r\n" +
               (method == "REFER" ? "Refer-To: <sip:victim@198.51.100.1>\r\n" : "") +
               (body.empty() ? "" : "Content-Type: application/sdp\r\n") +
               "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }

    // The final status the monitor answered with; 0 for none within the time.
    int finalStatus(const std::string& text, int timeoutMs = 2000) {
        if (send(fd, text.data(), text.size(), MSG_NOSIGNAL) < 0) return 0;
        std::string got;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;) {
            size_t at;
            while ((at = got.find("SIP/2.0 ")) != std::string::npos) {
                int status = std::atoi(got.c_str() + at + 8);
                got.erase(0, at + 8);
                if (status >= 200) return status;
            }
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd p{fd, POLLIN, 0};
            if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) != 1) return 0;
            char buf[4096];
            ssize_t n = recv(fd, buf, sizeof(buf), 0);
            if (n <= 0) return 0;
            got.append(buf, static_cast<size_t>(n));
        }
    }
};

const std::string kSdp = std::string(siptest::kOfferSdp);

class Attacker : public ::testing::Test {
  protected:
    void SetUp() override {
        SKIP_WITHOUT_KAMAILIO();
        ASSERT_TRUE(server_.start());
        port_ = siptest::freePort();
        monitor_ = std::make_unique<Phone>(port_);
        ASSERT_TRUE(monitor_->registerAt(server_.address(), "monitor", "monitor123"));
    }

    int direct(const std::string& method, bool tcp,
               const std::string& from = "sip:mallory@evil.example", const std::string& body = "") {
        Stranger s;
        s.tcp = tcp;
        if (!s.connectTo(port_)) return -1;
        return s.finalStatus(s.request(method, port_, from, body));
    }

    // Whatever the installation lists, no peer may call without the server here.
    zarnrtc::testing::SettingsScope<zarnrtc::testing::SipSettings> noPeers_{
        [](zarnrtc::testing::SipSettings& s) { s.allowPeers.clear(); }};
    KamailioServer server_;
    int port_ = 0;
    std::unique_ptr<Phone> monitor_;
};

TEST_F(Attacker, DirectRequestsAreRefusedAndNeverReachTheApplication) {
    for (bool tcp : {false, true}) {
        SCOPED_TRACE(tcp ? "TCP" : "UDP");
        EXPECT_EQ(direct("INVITE", tcp, "sip:mallory@evil.example", kSdp), 403);
        // Claiming to be the server's user, or calling from the server's own host.
        EXPECT_EQ(direct("INVITE", tcp, "sip:door@" + server_.address(), kSdp), 403);
        // Trust is judged first: an offer nobody could answer, or none, is not told 488.
        EXPECT_EQ(
            direct("INVITE", tcp, "sip:mallory@evil.example", "v=0\r\nm=audio 0 RTP/AVP 0\r\n"),
            403);
        EXPECT_EQ(direct("INVITE", tcp), 403);
        EXPECT_EQ(direct("MESSAGE", tcp), 403);
        EXPECT_EQ(direct("INFO", tcp), 403);
        EXPECT_EQ(direct("OPTIONS", tcp), 403);
        // Not offered at all: no transfer, no NOTIFY to a Contact of the sender's choice.
        EXPECT_EQ(direct("REFER", tcp), 405);
        EXPECT_EQ(direct("SUBSCRIBE", tcp), 405);
    }
    // Nothing listens on IPv6: the engine bound where its account lives.
    Stranger v6;
    v6.v6 = true;
    if (v6.connectTo(port_)) {
        EXPECT_EQ(v6.finalStatus(v6.request("INVITE", port_, "sip:m@x", kSdp), 500), 0);
    }

    // Malformed requests: answered or dropped, never a crash.
    for (const std::string& junk :
         {std::string("INVITE\r\n\r\n"), std::string("\x01\xff\x00garbage", 10),
          std::string(
              "INVITE sip:monitor@127.0.0.1 SIP/2.0\r\nContent-Length: 99999999\r\n\r\nv=0"),
          std::string(70000, 'A')}) {
        for (bool tcp : {false, true}) {
            Stranger s;
            s.tcp = tcp;
            if (s.connectTo(port_)) s.finalStatus(junk, 200);
        }
    }
    EXPECT_EQ(direct("OPTIONS", false), 403) << "the monitor is still there";
    EXPECT_EQ(monitor_->rec.count(Event::kIncoming), 0);
    EXPECT_EQ(monitor_->rec.count(Event::kMessage), 0);

    // The way through the server still works.
    Phone door;
    ASSERT_TRUE(door.registerAt(server_.address(), "door", "door123"));
    int id = door.engine->CreateCall();
    std::string callee = "sip:monitor@" + server_.address();
    door.engine->MakeCall(id, callee.c_str(), "Door", "dev_door", siptest::kOfferSdp, 160);
    EXPECT_GT(monitor_->incomingCall(), 0);
    door.engine->Hangup(id);
    EXPECT_TRUE(door.rec.waitState(id, sipengine::kHangup));
}

TEST_F(Attacker, AFloodOfDirectInvitesLeavesNothingBehind) {
    // Settle: the stack's own threads and sockets exist before we count.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    int threads = siptest::countEntries("/proc/self/task");
    int fds = siptest::countEntries("/proc/self/fd");
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 300; ++i) {
        Stranger s;
        if (!s.connectTo(port_)) continue;
        std::string invite = s.request("INVITE", port_, "sip:flood@evil.example", kSdp);
        if (i % 50 == 0) {
            EXPECT_EQ(s.finalStatus(invite), 403) << "INVITE " << i;  // sampled: still refused
        } else {
            send(s.fd, invite.data(), invite.size(), 0);
        }
    }
    auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    printf("300 direct INVITEs sent in %lld ms\n", static_cast<long long>(took.count()));
    EXPECT_EQ(monitor_->rec.count(Event::kIncoming), 0);
    EXPECT_EQ(siptest::countEntries("/proc/self/task"), threads);
    EXPECT_LE(siptest::countEntries("/proc/self/fd"), fds + 2);
    // And the monitor is still registered and reachable.
    EXPECT_EQ(direct("OPTIONS", false), 403);
}

}  // namespace
