// News from the media engine through the engine link, on a media thread, queued onto
// ours. A far end it lost (it stopped sending, or ICE failed), named by the ICE user
// fragments of the call's local description: the call ends with 408 and a BYE that
// the vanished far end will most likely never see. A far end's description it could
// not use, named by the link key of its text: a ringing INVITE is refused with the
// reason, an answered call ends with BYE and the reason.
#include <string>
#include <vector>

#include "call_state.h"
#include "engine_link.h"
#include "log.h"
#include "negotiate.h"
#include "sip_text.h"
#include "status_codes.h"
#include "user_agent.h"

namespace sipengine {

void UserAgent::startMediaWatch() {
    linkToken_ = zarn_link_subscribe(
        [](void* context, const char* ufrag, const char* why) {
            auto* self = static_cast<UserAgent*>(context);
            std::string u(ufrag), w(why);
            self->post([self, u, w] { self->onMediaLost(u, w); });
        },
        this);
    unusableToken_ = zarn_link_subscribe_unusable(
        [](void* context, unsigned long long key, int status, const char* why) {
            auto* self = static_cast<UserAgent*>(context);
            std::string w(why);
            self->post([self, key, status, w] { self->onUnusable(key, status, w); });
        },
        this);
}

void UserAgent::stopMediaWatch() {
    if (linkToken_) zarn_link_unsubscribe(linkToken_);
    if (unusableToken_) zarn_link_unsubscribe(unusableToken_);
    linkToken_ = unusableToken_ = 0;
}

void UserAgent::onMediaLost(const std::string& ufrag, const std::string& why) {
    std::vector<int> lost;
    for (const auto& entry : calls_) {
        const Call& call = *entry.second;
        if (call.ended || (!call.answered && !call.localAnswer)) continue;
        for (const std::string& own : libwebrtc::media::sdp::IceUfrags(call.localSdp))
            if (own == ufrag) lost.push_back(call.id);
    }
    // By id: the delegate may hang calls up while it hears of the first.
    for (int id : lost) {
        Call* call = liveCall(id);
        if (!call || call->ended || !call->nh) continue;
        logTrace("call %d: far end lost (%s)", id, why.c_str());
        call->endReason = kStatusRequestTimeout;
        call->endText = "far end lost: " + why;
        endCall(*call, call->endReason, call->endText.c_str());
        nua_bye(call->nh, TAG_END());
    }
}

// The media engine failed on a description the SDK handed it unchanged: the caller
// or callee hears why at once, instead of a call that rings on or carries nothing.
void UserAgent::onUnusable(unsigned long long key, int status, const std::string& why) {
    if (!key) return;
    // 5xx: the media engine failed on its own side; anything else is the description.
    int code = status >= kStatusServerError && status <= kStatusLastServerError
                   ? status
                   : kStatusNotAcceptableHere;
    std::vector<int> named;
    for (const auto& entry : calls_) {
        const Call& call = *entry.second;
        if (!call.ended && (call.remoteKey == key || (call.outgoing && call.earlyKey == key)))
            named.push_back(call.id);
    }
    // By id: the delegate may hang calls up while it hears of the first.
    for (int id : named) {
        Call* call = liveCall(id);
        if (!call || !call->nh) continue;
        if (!call->outgoing) {
            // Not once our 200 or another final response has gone out.
            if (call->localAnswer || call->lastStatus) continue;
            logTrace("call %d: offer unusable (%s); %d", id, why.c_str(), code);
            stopRingBound(*call);
            call->lastStatus = code;
            call->endReason = code;
            call->endText = "unusable offer: " + why;
            refuse(call->nh, code, why);  // the end is reported when the dialog closes
        } else if (call->answered) {
            if (call->byeSent) continue;  // already on its way out
            logTrace("call %d: answer unusable (%s)", id, why.c_str());
            call->endReason = kStatusNotAcceptableHere;
            call->endText = "unusable answer: " + why;
            endCall(*call, call->endReason, call->endText.c_str());
            byeWithReason(*call, call->endReason, call->endText);
        } else if (!call->cancelling) {
            // Its early description, which the SDK applied as the answer.
            logTrace("call %d: early answer unusable (%s)", id, why.c_str());
            call->endReason = kStatusNotAcceptableHere;
            call->endText = "unusable answer: " + why;
            reportState(*call, kFailed, call->endReason, call->endText.c_str());
            hangupCall(id);  // CANCEL; the end is reported with that reason
        }
    }
}

}  // namespace sipengine
