// The application's thread and the SIP engine's thread on the same calls at once:
// no call is touched after it is freed, every call is reclaimed, and nothing is
// left behind. Run under AddressSanitizer (dev) and ThreadSanitizer (tsan).
#include <atomic>
#include <random>
#include <thread>

#include "sipenginemanager.h"
#include "test_support.h"

using namespace zarnrtc;
using namespace zarnrtc::test;

namespace {

// Lets two threads leave the starting line together.
class StartLine {
  public:
    void go() {
        ++ready_;
        while (ready_.load() < 2) std::this_thread::yield();
    }

  private:
    std::atomic<int> ready_{0};
};

void spin(unsigned yields) {
    for (unsigned i = 0; i < yields; ++i) std::this_thread::yield();
}

class ThreadsTest : public EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        fake::mediaConfig().autoNegotiate = true;  // answer() runs to Accept at once
    }

    // Peer connections made by this test and still alive.
    size_t livePeerConnections() { return fake::peerConnections().size() - pcsBefore; }

    void expectNothingLeft() {
        EXPECT_EQ(manager->callCount(), 0u);
        EXPECT_EQ(livePeerConnections(), 0u);
        EXPECT_EQ(fake::liveObjects(), baseline);
        EXPECT_EQ(manager->currentCall(), nullptr);
    }

    int hangupReports(int from, int to) {
        int n = 0;
        for (const std::string& e : handler.events())
            for (int id = from; id < to; ++id)
                if (e == "state(" + std::to_string(id) + ",7,200)") ++n;
        return n;
    }
};

}  // namespace

// A visitor gives up just as the resident answers: the far end's BYE in the early
// dialog meets answer() at every point of its run.
TEST_F(ThreadsTest, EarlyByeWhileAnswering) {
    const int rounds = 1000;
    const int first = 1000;
    std::mt19937 rng(7);
    for (int round = 0; round < rounds; ++round) {
        const int id = first + round;
        calls->OnIncomingCall(1, id, "Visitor", "sip:visitor@x", "sip:monitor@x");
        calls->OnCallOffer(id, "v=0 offer", true, true);
        const unsigned delay = rng() % 200;
        StartLine line;
        std::thread sip([&] {
            line.go();
            calls->OnCallStateChange(id, kRinging, 180, "Ringing");
            // A peer may also re-offer meanwhile.
            if (round % 4 == 1) calls->OnCallOffer(id, "v=0 re-offer", true, true);
            spin(delay);
            calls->OnCallStateChange(id, kHangup, 200, "BYE");
        });
        line.go();
        engine->answer(id);
        sip.join();
        ASSERT_EQ(manager->callCount(), 0u) << "round " << round;
        ASSERT_EQ(livePeerConnections(), 0u) << "round " << round;
    }
    // The end of every call reaches the application exactly once.
    EXPECT_EQ(hangupReports(first, first + rounds), rounds);
    expectNothingLeft();
}

// One thread ends calls through the SIP engine (and lets forwarded calls answer)
// while the other answers, hangs up, forwards and feeds the same ids.
TEST_F(ThreadsTest, EngineEndsCallsWhileTheApplicationWorksOnThem) {
    std::mt19937 rng(11);
    const uint8_t packet[4] = {1, 2, 3, 4};
    for (int round = 0; round < 300; ++round) {
        const int incoming = 5000 + round;
        calls->OnIncomingCall(1, incoming, "x", "sip:x@y", "sip:me@y");
        calls->OnCallOffer(incoming, "v=0 offer", true, true);
        // The fake engine numbers outgoing calls one after another.
        const int placed = fake::sipConfig().nextCallId;
        engine->call("sip:door@x");
        engine->callForward({"sip:mon1@x", "sip:mon2@x"}, nullptr, true, false, 0, 0, 0, 0,
                            nullptr);
        const int ids[4] = {incoming, placed, placed + 1, placed + 2};
        const unsigned order = rng();
        StartLine line;
        std::thread sip([&] {
            line.go();
            calls->OnCallStateChange(ids[2 + order % 2], kAnswered, 200, "OK");
            for (int i = 0; i < 4; ++i)
                calls->OnCallStateChange(ids[(i + order) % 4], kHangup, 200, "BYE");
        });
        line.go();
        engine->answer(incoming);
        engine->sendVideoPacket(packet, 4, 96, 1);
        engine->hangup(ids[1 + order % 3]);
        engine->setupRemoteVideo(incoming, nullptr);
        engine->hangup(incoming);
        sip.join();
        // The engine confirms every end, as it always does.
        for (int id : ids) calls->OnCallStateChange(id, kHangup, 200, "BYE");
        ASSERT_EQ(manager->callCount(), 0u) << "round " << round;
        ASSERT_EQ(livePeerConnections(), 0u) << "round " << round;
    }
    expectNothingLeft();
}

// The far end's video arrives on the media engine's thread while the application
// attaches its sink and switches to flow-stream mode, then the engine ends the call.
TEST_F(ThreadsTest, RemoteVideoArrivesWhileTheApplicationAttachesItsSink) {
    CountingSink sink;
    for (int round = 0; round < 300; ++round) {
        const int id = 8000 + round;
        calls->OnIncomingCall(1, id, "x", "sip:x@y", "sip:me@y");
        calls->OnCallOffer(id, "v=0 offer", true, true);
        engine->answer(id);
        fake::FakePeerConnection* pc = fake::lastPeerConnection();
        ASSERT_NE(pc, nullptr);
        StartLine line;
        std::thread media([&] {
            line.go();
            pc->fireAddTrack("video", "v");
            pc->fireAddTrack("audio", "a");
            pc->remoteVideoTrack()->pushFrame(fake::makeFrame(2, 2));
        });
        line.go();
        engine->setupRemoteVideo(id, &sink);
        if (round % 2) engine->flowStream();
        engine->audioPlay("ring.wav");
        media.join();
        calls->OnCallStateChange(id, kHangup, 200, "BYE");
        ASSERT_EQ(livePeerConnections(), 0u) << "round " << round;
    }
    expectNothingLeft();
}

// Registration reports arrive on the SIP thread while the application registers
// and unregisters: the account record is never written after it is freed.
TEST_F(ThreadsTest, RegistrationReportsWhileTheAccountIsReplaced) {
    RegistrationStateDelegate* reg = sip()->registration;
    std::atomic<bool> done{false};
    std::thread sipThread([&] {
        for (int i = 0; !done; ++i) {
            int acc = 1 + i % 50;
            reg->OnRegistrationProgress(acc);
            reg->OnRegistrationSuccess(acc);
            reg->OnRegistrationFailed(acc, 403, "Forbidden");
            reg->OnRegistrationClear(acc);
        }
    });
    for (int i = 0; i < 300; ++i) {
        int acc = engine->registerAccount("10.0.0.1", "door", "secret", "Door");
        if (i % 2 == 0) manager->unregisterSipAccount(acc);
    }
    done = true;
    sipThread.join();
    Account* account = manager->currentAccount();
    ASSERT_NE(account, nullptr);
    reg->OnRegistrationSuccess(account->getAccId());
    EXPECT_EQ(account->getState(), 1);
}
