// The SDK (libzarnrtc) over the host SIP engine, with the fake media engine producing
// SDP at once: registration states reach the application and call() becomes a real
// INVITE at another engine.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <vector>

#include "fake_media.h"
#include "kamailio_server.h"
#include "phone.h"
#include "zarnrtc.h"
#include "kept_engine.h"

using siptest::Event;
using siptest::KamailioServer;
using siptest::Phone;

namespace {

class Handler : public zarnrtc::IRtcEngineEventHandler {
  public:
    struct Report {
        int id, state, code;
    };
    void onRegistrationState(int accId, int state, const char*) override {
        push(registrations, {accId, state, 0});
    }
    void onCallStateChange(int callId, int state, int reason) override {
        push(calls, {callId, state, reason});
    }
    void onMessage(const char*) override {}
    void onIncomingCall(int, const char*, const char*) override {}
    void onLocalVideoReady(int) override {}
    void onRemoteVideoReady(int) override {}
    void onUpdatedByLocal(int, bool) override {}
    void onUpdatedByRemote(int, bool) override {}

    bool waitFor(std::vector<Report>& list, int id, int state) {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, std::chrono::seconds(5), [&] {
            for (const Report& r : list)
                if (r.id == id && r.state == state) return true;
            return false;
        });
    }

    std::mutex mutex;
    std::condition_variable cv;
    std::vector<Report> registrations, calls;

  private:
    void push(std::vector<Report>& list, Report r) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            list.push_back(r);
        }
        cv.notify_all();
    }
};

// The SDK's engines live as long as the process, by design: keep them reachable.
zarnrtc::ZarnRtc* g_door = nullptr;
zarnrtc::ZarnRtc* g_intruder = nullptr;
// Never destroyed either: the engines' SIP threads may still report at exit.
Handler& g_doorEvents = *new Handler;
Handler& g_intruderEvents = *new Handler;

TEST(SipSdkOverEngine, RegistersAndPlacesRealInvite) {
    if (!KamailioServer::installed()) GTEST_SKIP() << "kamailio is not installed";
    setenv("ZARNRTC_SIP_BIND", "127.0.0.1", 1);
    KamailioServer server;
    ASSERT_TRUE(server.start());
    zarnrtc::fake::mediaConfig().autoNegotiate = true;

    g_door = zarnrtc_testing::keptEngine();
    g_door->setZarnRtcEvent(&g_doorEvents);
    int acc = g_door->registerAccount(server.address().c_str(), "door", "door123", "Door");
    ASSERT_GT(acc, 0);
    ASSERT_TRUE(g_doorEvents.waitFor(g_doorEvents.registrations, acc, 1));

    g_intruder = zarnrtc_testing::keptEngine();
    g_intruder->setZarnRtcEvent(&g_intruderEvents);
    int bad = g_intruder->registerAccount(server.address().c_str(), "door", "nope", "Door");
    ASSERT_GT(bad, 0);
    EXPECT_TRUE(g_intruderEvents.waitFor(g_intruderEvents.registrations, bad, 3));

    Phone bob;
    ASSERT_TRUE(bob.registerAt(server.address(), "bob", "bob123"));
    std::string callee = "sip:bob@" + server.address();
    int id = g_door->call(callee.c_str());
    ASSERT_GT(id, 0);
    int atBob = bob.incomingCall();
    ASSERT_GT(atBob, 0);
    Event incoming, offer;
    ASSERT_TRUE(bob.rec.waitKind(Event::kIncoming, atBob, &incoming));
    EXPECT_EQ(incoming.text, "sip:door@" + server.address());
    ASSERT_TRUE(bob.rec.waitKind(Event::kOffer, atBob, &offer));
    EXPECT_NE(offer.text.find("v=0"), std::string::npos);

    bob.engine->Accept(atBob, siptest::kAnswerSdp, "dev_indoor", true, true, 480);
    EXPECT_TRUE(g_doorEvents.waitFor(g_doorEvents.calls, id, 6));
    bob.engine->Hangup(atBob);
    EXPECT_TRUE(g_doorEvents.waitFor(g_doorEvents.calls, id, 7));
    EXPECT_TRUE(bob.rec.waitState(atBob, 7));
}

}  // namespace
