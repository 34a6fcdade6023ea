// Failures in the field, each printing how long it took to be noticed: after each,
// both sides saw their call end exactly once.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>

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
    // Exactly one end each, and nothing after it.
    for (auto states : {door.rec.states(id), monitor.rec.states(in)}) {
        ASSERT_FALSE(states.empty());
        EXPECT_EQ(states.back(), sipengine::kHangup);
        EXPECT_EQ(std::count(states.begin(), states.end(), sipengine::kHangup), 1);
    }
    unsetenv("ZARNRTC_SIP_OUTGOING_RING_S");
    unsetenv("ZARNRTC_SIP_INCOMING_RING_S");
}

}  // namespace
