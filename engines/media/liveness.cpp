// A far end that vanished (power cut, crash, cable) sends nothing more, and the
// call would stay up forever. The ICE agent's consent freshness notices after 30 s;
// a door needs less. So the session watches what arrives on its transports: once
// both descriptions are set, a call whose far end says it sends, and from which
// nothing has arrived for the dead-peer bound
// (ZARNRTC_MEDIA_DEAD_PEER_S, default 8 s: longer than a far end that only stalls
// for a few seconds), or whose ICE failed, is lost. The observer hears ICE failed,
// and the SIP engine hears it through the engine link (engine_link.h) and ends it.
#include "engine_link.h"
#include "media_settings.h"
#include "session.h"

namespace libwebrtc {
namespace media {
namespace {

constexpr int kLivenessTickMs = 1000;

}  // namespace

// Worker: after each description; starts the watch once both are set.
void Session::StartLivenessWatch() {
    if (!planned_ || gathering_ == RTCIceGatheringStateNew) return;
    expect_arrivals_ = false;
    for (const sdp::StreamPlan& sp : plan_.streams) expect_arrivals_ |= sp.active && sp.receive;
    if (liveness_watched_) return;
    liveness_watched_ = true;
    dead_peer_us_ =
        static_cast<gint64>(zarnrtc::settings::mediaSettings().deadPeerS) * G_USEC_PER_SEC;
    // ICE and DTLS get the whole bound before the first packet is due.
    arrivals_->Touch();
    worker_.PostDelayed(kLivenessTickMs, [w = weak_from_this()] {
        if (auto self = w.lock()) self->CheckLiveness();
    });
}

void Session::CheckLiveness() {
    if (gate_.closed() || peer_lost_) return;
    gint64 silent = g_get_monotonic_time() - arrivals_->last_us.load(std::memory_order_relaxed);
    if (ice_connection_ == RTCIceConnectionStateFailed) return PeerLost("ICE failed");
    if (expect_arrivals_ && silent > dead_peer_us_)
        return PeerLost("no media for " + std::to_string(silent / G_USEC_PER_SEC) + " s");
    AdaptJitterBuffers();
    worker_.PostDelayed(kLivenessTickMs, [w = weak_from_this()] {
        if (auto self = w.lock()) self->CheckLiveness();
    });
}

void Session::PeerLost(const std::string& why) {
    if (peer_lost_ || gate_.closed()) return;
    peer_lost_ = true;
    GST_WARNING("far end lost: %s", why.c_str());
    if (ice_connection_.exchange(RTCIceConnectionStateFailed) != RTCIceConnectionStateFailed) {
        Notify([](RTCPeerConnectionObserver* o) {
            o->OnIceConnectionState(RTCIceConnectionStateFailed);
        });
    }
    if (!identity_.ice_ufrag.empty())
        zarn_link_report_lost(identity_.ice_ufrag.c_str(), why.c_str());
}

}  // namespace media
}  // namespace libwebrtc
