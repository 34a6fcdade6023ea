// No endless ringing: an outgoing call nobody answers is cancelled, an incoming call
// the application never answers is refused with 480, each after a bound that an
// installation may set (ZARNRTC_SIP_OUTGOING_RING_S, ZARNRTC_SIP_INCOMING_RING_S).
#include <cstdint>
#include <cstdlib>

#include "log.h"
#include "user_agent.h"

namespace sipengine {

namespace {

// A visitor gives up after about a minute; a resident needs about as long to come.
constexpr int kDefaultOutgoingRingS = 60;
constexpr int kDefaultIncomingRingS = 60;
constexpr int kMaxRingS = 24 * 3600;

int ringSeconds(const char* name, int fallback) {
    const char* text = getenv(name);
    if (!text || !*text) return fallback;
    char* end = nullptr;
    long value = std::strtol(text, &end, 10);
    if (*end || value < 1 || value > kMaxRingS) {
        logError("%s must be 1..%d seconds; using %d", name, kMaxRingS, fallback);
        return fallback;
    }
    return static_cast<int>(value);
}

}  // namespace

void UserAgent::startRingBound(Call& call) {
    call.ringBoundS = call.outgoing
                          ? ringSeconds("ZARNRTC_SIP_OUTGOING_RING_S", kDefaultOutgoingRingS)
                          : ringSeconds("ZARNRTC_SIP_INCOMING_RING_S", kDefaultIncomingRingS);
    if (!call.ringTimer) call.ringTimer = su_timer_create(su_root_task(root_), 0);
    if (!call.ringTimer) return;
    // The id, not the call: a call freed before the timer fires is simply not found.
    su_timer_set_interval(call.ringTimer, onRingBound,
                          reinterpret_cast<void*>(static_cast<intptr_t>(call.id)),
                          static_cast<su_duration_t>(call.ringBoundS) * 1000);
}

void UserAgent::stopRingBound(Call& call) {
    if (call.ringTimer) su_timer_destroy(call.ringTimer), call.ringTimer = nullptr;
}

void UserAgent::onRingBound(void* magic, su_timer_t*, void* arg) {
    auto* self = static_cast<UserAgent*>(magic);
    Call* call = self->liveCall(static_cast<int>(reinterpret_cast<intptr_t>(arg)));
    if (!call || call->answered || call->localAnswer) return;
    logTrace("call %d: not answered within %d s", call->id, call->ringBoundS);
    call->ringTimedOut = true;
    if (call->outgoing) {
        self->hangupCall(call->id);  // CANCEL; the end reports 408
        return;
    }
    call->lastStatus = kStatusTemporarilyUnavailable;
    nua_respond(call->nh, SIP_480_TEMPORARILY_UNAVAILABLE, TAG_END());
}

}  // namespace sipengine
