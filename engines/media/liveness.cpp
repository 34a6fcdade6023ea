// A far end that vanished (power cut, crash, cable) sends nothing more, and the
// call would stay up forever. libnice's consent freshness could tell, but it is an
// option fixed when the agent is made, and webrtcbin makes its agent without it.
// So the session watches what arrives: once both descriptions are set, a call whose
// far end says it sends, and from which nothing has arrived for the dead-peer bound
// (ZARNRTC_MEDIA_DEAD_PEER_S, default 8 s: longer than a far end that only stalls
// for a few seconds), or whose ICE failed, is lost. The observer hears ICE failed,
// and the SIP engine hears it through the engine link (engine_link.h) and ends it.
#include "engine_link.h"
#include "media_settings.h"
#include "negotiate.h"
#include "session.h"

namespace libwebrtc {
namespace media {
namespace {

constexpr int kLivenessTickMs = 1000;

GstPadProbeReturn OnArrival(GstPad*, GstPadProbeInfo*, gpointer data) {
    static_cast<ArrivalClock*>(data)->Touch();
    return GST_PAD_PROBE_OK;
}

}  // namespace

void ArrivalClock::Touch() {
    last_us.store(g_get_monotonic_time(), std::memory_order_relaxed);
}

// GStreamer streaming thread: every buffer the far end sends passes here.
void Session::WatchArrivals(GstPad* pad) {
    // The probe keeps the clock alive: the pad may outlive this session.
    auto* clock = new std::shared_ptr<ArrivalClock>(arrivals_);
    gst_pad_add_probe(
        pad,
        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST),
        [](GstPad* p, GstPadProbeInfo* info, gpointer data) {
            return OnArrival(p, info, static_cast<std::shared_ptr<ArrivalClock>*>(data)->get());
        },
        clock, [](gpointer data) { delete static_cast<std::shared_ptr<ArrivalClock>*>(data); });
}

// Worker: after each description; starts the watch once both are set.
void Session::StartLivenessWatch() {
    std::string remote;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!local_set_ || shut_) return;
        remote = remote_.sdp;
    }
    if (remote.empty()) return;
    expect_arrivals_ = sdp::SendsMedia(remote);
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
    worker_.PostDelayed(kLivenessTickMs, [w = weak_from_this()] {
        if (auto self = w.lock()) self->CheckLiveness();
    });
}

void Session::PeerLost(const std::string& why) {
    peer_lost_ = true;
    GST_WARNING("far end lost: %s", why.c_str());
    scoped_refptr<RTCSessionDescription> local = LocalDescription();
    if (ice_connection_.exchange(RTCIceConnectionStateFailed) != RTCIceConnectionStateFailed) {
        Notify([](RTCPeerConnectionObserver* o) {
            o->OnIceConnectionState(RTCIceConnectionStateFailed);
        });
    }
    if (!local) return;
    for (const std::string& ufrag : sdp::IceUfrags(local->sdp()))
        zarn_link_report_lost(ufrag.c_str(), why.c_str());
}

}  // namespace media
}  // namespace libwebrtc
