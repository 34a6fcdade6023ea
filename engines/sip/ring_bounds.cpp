// No endless ringing: an outgoing call nobody answers is cancelled, an incoming call
// the application never answers is refused with 480, each after a bound that an
// installation may set (sip_settings.h; by default about a minute: a visitor gives
// up after that, and a resident needs about as long to come).
#include <cstdint>

#include "log.h"
#include "sip_settings.h"
#include "user_agent.h"

namespace sipengine {

void UserAgent::startRingBound(Call& call) {
    const zarnrtc::settings::SipSettings settings = zarnrtc::settings::sipSettings();
    call.ringBoundS = call.outgoing ? settings.outgoingRingS : settings.incomingRingS;
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
