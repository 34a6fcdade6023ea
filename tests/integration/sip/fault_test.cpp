// Failures in the field, each printing how long it took to be noticed: after each,
// both sides saw their call end exactly once.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "call_state.h"
#include "kamailio_server.h"
#include "phone.h"

using siptest::Event;
using siptest::KamailioServer;
using siptest::Phone;
using Clock = std::chrono::steady_clock;

namespace {

long long msSince(Clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

// A crash, not a shutdown: SIGKILL to Kamailio and its children (they hold the sockets).
void killHard(KamailioServer& server) {
    std::string pid = "$(cat '" + server.runDir() + "/kamailio.pid')";
    siptest::runCommand("p=" + pid + "; kill -KILL $p $(pgrep -P $p) 2>/dev/null; sleep 0.3");
    server.stop();  // forgets the dead process
}

// Exactly one end for the call, and nothing after it.
void expectOneEnd(Phone& phone, int id) {
    std::vector<int> states = phone.rec.states(id);
    ASSERT_FALSE(states.empty());
    EXPECT_EQ(states.back(), sipengine::kHangup);
    EXPECT_EQ(std::count(states.begin(), states.end(), sipengine::kHangup), 1);
}

TEST(Faults, RegistrarDiesWhileACallRings) {
    if (!KamailioServer::installed()) GTEST_SKIP() << "kamailio is not installed";
    setenv("ZARNRTC_SIP_BIND", "127.0.0.1", 1);
    setenv("ZARNRTC_SIP_OUTGOING_RING_S", "3", 1);
    setenv("ZARNRTC_SIP_INCOMING_RING_S", "3", 1);
    KamailioServer server;
    ASSERT_TRUE(server.start());
    Phone door, monitor;
    ASSERT_TRUE(door.registerAt(server.address(), "door", "door123"));
    ASSERT_TRUE(monitor.registerAt(server.address(), "monitor", "monitor123"));
    int id = door.engine->CreateCall();
    std::string callee = "sip:monitor@" + server.address();
    door.engine->MakeCall(id, callee.c_str(), "Door", "dev_door", siptest::kOfferSdp, 160);
    int in = monitor.incomingCall();
    ASSERT_GT(in, 0);
    ASSERT_TRUE(door.rec.waitState(id, sipengine::kRinging));

    server.stop();
    auto killed = Clock::now();
    std::chrono::seconds bound(10);
    EXPECT_TRUE(door.rec.waitState(id, sipengine::kHangup, bound));
    long long doorMs = msSince(killed);
    EXPECT_TRUE(monitor.rec.waitState(in, sipengine::kHangup, bound));
    long long monitorMs = msSince(killed);
    printf("registrar killed while ringing: caller ended after %lld ms, callee after %lld ms\n",
           doorMs, monitorMs);
    expectOneEnd(door, id);
    expectOneEnd(monitor, in);
    unsetenv("ZARNRTC_SIP_OUTGOING_RING_S");
    unsetenv("ZARNRTC_SIP_INCOMING_RING_S");
}

// A call is up when the registrar crashes and comes back; afterwards one side hangs up
// and the other must hear of it, although both now reach Kamailio over new connections.
void hangUpAfterRegistrarRestart(bool doorHangsUp) {
    setenv("ZARNRTC_SIP_BIND", "127.0.0.1", 1);
    KamailioServer server;
    ASSERT_TRUE(server.start());
    Phone door, monitor;
    ASSERT_TRUE(door.registerAt(server.address(), "door", "door123"));
    ASSERT_TRUE(monitor.registerAt(server.address(), "monitor", "monitor123"));
    int id = door.engine->CreateCall();
    std::string callee = "sip:monitor@" + server.address();
    door.engine->MakeCall(id, callee.c_str(), "Door", "dev_door", siptest::kOfferSdp, 160);
    int in = monitor.incomingCall();
    ASSERT_GT(in, 0);
    ASSERT_TRUE(monitor.rec.waitKind(Event::kOffer, in));
    monitor.engine->Accept(in, siptest::kAnswerSdp, "dev_indoor", true, true, 480);
    ASSERT_TRUE(door.rec.waitState(id, sipengine::kAnswered));
    ASSERT_TRUE(monitor.rec.waitState(in, sipengine::kAnswered));

    killHard(server);
    ASSERT_TRUE(door.rec.waitKind(Event::kRegFailed, door.accId));
    ASSERT_TRUE(monitor.rec.waitKind(Event::kRegFailed, monitor.accId));
    std::this_thread::sleep_for(std::chrono::seconds(3));
    door.rec.clear();
    monitor.rec.clear();
    ASSERT_TRUE(server.start());
    auto back = Clock::now();
    ASSERT_TRUE(door.rec.waitKind(Event::kRegOk, door.accId));
    ASSERT_TRUE(monitor.rec.waitKind(Event::kRegOk, monitor.accId));
    long long registeredMs = msSince(back);
    // Time for the dialogs to learn the new connections.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));

    Phone& hanging = doorHangsUp ? door : monitor;
    Phone& other = doorHangsUp ? monitor : door;
    int hangingId = doorHangsUp ? id : in;
    int otherId = doorHangsUp ? in : id;
    hanging.engine->Hangup(hangingId);
    auto hungUp = Clock::now();
    EXPECT_TRUE(other.rec.waitState(otherId, sipengine::kHangup, std::chrono::seconds(10)));
    long long endMs = msSince(hungUp);
    EXPECT_TRUE(hanging.rec.waitState(hangingId, sipengine::kHangup));
    printf(
        "registrar killed mid-call, back after 3 s: both registered again after %lld ms; "
        "%s hung up, %s saw the end after %lld ms\n",
        registeredMs, doorHangsUp ? "door" : "monitor", doorHangsUp ? "monitor" : "door", endMs);
    EXPECT_LT(endMs, 2000);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    expectOneEnd(door, id);
    expectOneEnd(monitor, in);
}

TEST(Faults, RegistrarRestartsMidCallThenTheDoorHangsUp) {
    if (!KamailioServer::installed()) GTEST_SKIP() << "kamailio is not installed";
    hangUpAfterRegistrarRestart(true);
}

TEST(Faults, RegistrarRestartsMidCallThenTheMonitorHangsUp) {
    if (!KamailioServer::installed()) GTEST_SKIP() << "kamailio is not installed";
    hangUpAfterRegistrarRestart(false);
}

}  // namespace
