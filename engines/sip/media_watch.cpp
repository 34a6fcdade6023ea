// Calls whose far end the media engine lost (it stopped sending, or ICE failed):
// the news comes through the engine link on a media thread, keyed by the ICE user
// fragments of the call's local description, and each such call ends here with
// 408 and a BYE that the vanished far end will most likely never see.
#include <string>
#include <vector>

#include "engine_link.h"
#include "log.h"
#include "negotiate.h"
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
}

void UserAgent::stopMediaWatch() {
    if (linkToken_) zarn_link_unsubscribe(linkToken_);
    linkToken_ = 0;
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

}  // namespace sipengine
