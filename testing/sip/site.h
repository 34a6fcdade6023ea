// The usual ground of a SIP integration test: the project's Kamailio on loopback with
// a door and a monitor registered at it, and the calls between them.
#ifndef ZARNRTC_TESTING_SIP_SITE_H
#define ZARNRTC_TESTING_SIP_SITE_H

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "call_state.h"
#include "kamailio_server.h"
#include "phone.h"
#include "settings_scope.h"

// In a gtest body: the case skips where Kamailio is not installed.
#define SKIP_WITHOUT_KAMAILIO() \
    if (!siptest::KamailioServer::installed()) GTEST_SKIP() << "kamailio is not installed"

namespace siptest {

// `caller` calls `uri`; the callee's id once `callee` saw the call ringing (0 if not).
inline int ringingCall(Phone& caller, int id, Phone& callee, const std::string& uri) {
    caller.engine->MakeCall(id, uri.c_str(), "Door", "dev_door", kOfferSdp, 160);
    Event offer;
    if (!callee.rec.waitKind(Event::kOffer, -1, &offer)) return 0;
    return offer.id;
}

// As ringingCall, then the callee answers; its id once both sides saw the call up.
inline int answeredCall(Phone& caller, int id, Phone& callee, const std::string& uri) {
    int in = ringingCall(caller, id, callee, uri);
    if (in <= 0) return 0;
    callee.engine->Accept(in, kAnswerSdp, "dev_indoor", true, true, 480);
    if (!caller.rec.waitState(id, sipengine::kAnswered)) return 0;
    return callee.rec.waitState(in, sipengine::kAnswered) ? in : 0;
}

// The call ends with exactly one Hangup and nothing after it.
inline void expectEndsOnce(Phone& p, int callId) {
    ASSERT_TRUE(p.rec.waitState(callId, sipengine::kHangup));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    int hangups = 0;
    bool afterHangup = false;
    for (const Event& e : p.rec.events()) {
        if (e.id != callId || e.kind == Event::kIncoming || e.registration()) continue;
        if (hangups) afterHangup = true;
        if (e.kind == Event::kState && e.a == sipengine::kHangup) ++hangups;
    }
    EXPECT_EQ(hangups, 1);
    EXPECT_FALSE(afterHangup) << "callback after Hangup";
}

struct Site {
    // Starts Kamailio (SIP bound to loopback) and registers door and monitor.
    bool up() {
        zarnrtc::testing::bindSipToLoopback();
        return server.start() && door.registerAt(server.address(), "door", "door123") &&
               monitor.registerAt(server.address(), "monitor", "monitor123");
    }
    std::string uri(const std::string& user) const {
        return "sip:" + user + "@" + server.address();
    }
    // The door calls the monitor: the monitor's id of the call (0 if it did not get there).
    int ring(int doorId) { return ringingCall(door, doorId, monitor, uri("monitor")); }
    int answer(int doorId) { return answeredCall(door, doorId, monitor, uri("monitor")); }

    KamailioServer server;  // outlives the phones: declared first
    Phone door;
    Phone monitor;
};

}  // namespace siptest

#endif
