// Median REGISTER round trip (challenge + authenticated REGISTER) and INVITE-to-200
// through Kamailio on loopback, 20 samples each. Exit status 1 if a run fails.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "kamailio_server.h"
#include "phone.h"
#include "settings_scope.h"
#include "stats.h"

using Clock = std::chrono::steady_clock;
using siptest::Event;

namespace {

constexpr int kSamples = 20;
constexpr double kTargetMs = 5.0;

double msSince(Clock::time_point t) {
    return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
}

void print(const char* what, const bench::Samples& v) {
    double med = v.median();
    printf("%-28s median %7.3f ms  min %7.3f  max %7.3f  (n=%zu, target < %.0f ms)%s\n", what, med,
           v.min(), v.max(), v.size(), kTargetMs, med < kTargetMs ? "" : "  ABOVE TARGET");
}

}  // namespace

int main() {
    if (!siptest::KamailioServer::installed()) {
        fprintf(stderr, "kamailio is not installed\n");
        return 77;
    }
    zarnrtc::testing::bindSipToLoopback();
    siptest::KamailioServer server;
    if (!server.start()) {
        fprintf(stderr, "kamailio did not start\n");
        return 1;
    }
    const std::string addr = server.address();

    // A fresh engine per sample: connection, 401 and the authenticated REGISTER.
    bench::Samples reg;
    for (int i = 0; i < kSamples; ++i) {
        siptest::Phone p;
        auto t = Clock::now();
        if (!p.registerAt(addr, "door", "door123")) {
            fprintf(stderr, "registration %d failed\n", i);
            return 1;
        }
        reg.add(msSince(t));
    }

    siptest::Phone caller, callee;
    callee.rec.onEvent = [&callee](const Event& e) {
        if (e.kind == Event::kOffer)
            callee.engine->Accept(e.id, siptest::kAnswerSdp, "dev_indoor", true, true, 480);
        else if (e.kind == Event::kState && e.a == 6)
            callee.engine->Hangup(e.id);
    };
    if (!caller.registerAt(addr, "monitor", "monitor123") ||
        !callee.registerAt(addr, "monitor2", "monitor123")) {
        fprintf(stderr, "registration failed\n");
        return 1;
    }
    bench::Samples invite;
    for (int i = 0; i < kSamples; ++i) {
        int id = caller.engine->CreateCall();
        auto t = Clock::now();
        caller.engine->MakeCall(id, "monitor2", "Monitor", "dev_indoor", siptest::kOfferSdp, 160);
        if (!caller.rec.waitKind(Event::kAnswer, id)) {
            fprintf(stderr, "call %d not answered\n", i);
            return 1;
        }
        invite.add(msSince(t));
        if (!caller.rec.waitState(id, 7)) {  // hang-up
            fprintf(stderr, "call %d did not end\n", i);
            return 1;
        }
    }

    print("REGISTER (401 + retry)", reg);
    print("INVITE -> 200 OK", invite);
    return 0;
}
