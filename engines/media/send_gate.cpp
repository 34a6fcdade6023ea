// The send gate: what rtpbin sends waits here until the transport can carry it.
#include "send_gate.h"

#include <gst/video/video.h>

namespace libwebrtc {
namespace media {

namespace {

constexpr gint64 kStaleUs = 300 * 1000;  // held longer than this: not sent

}  // namespace

void SendGate::Install(GstPad* pad, const std::shared_ptr<SendGate>& gate) {
    gst_pad_add_probe(
        pad,
        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST),
        [](GstPad* p, GstPadProbeInfo* info, gpointer d) {
            return static_cast<std::shared_ptr<SendGate>*>(d)->get()->Pass(p, info);
        },
        new std::shared_ptr<SendGate>(gate),
        [](gpointer d) { delete static_cast<std::shared_ptr<SendGate>*>(d); });
}

// On the branch's streaming thread: waits while closed.
GstPadProbeReturn SendGate::Pass(GstPad* pad, GstPadProbeInfo*) {
    if (state_ == kOpen) return GST_PAD_PROBE_OK;
    if (state_ == kDiscard) return GST_PAD_PROBE_DROP;
    gint64 since = g_get_monotonic_time();
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait(lock, [&] { return state_ != kClosed; });
    if (state_ == kDiscard) return GST_PAD_PROBE_DROP;
    if (g_get_monotonic_time() - since < kStaleUs) return GST_PAD_PROBE_OK;
    // Too old to show: the encoder makes a fresh key frame for the next picture.
    if (video_ && !ask_key_frame_) {
        ask_key_frame_ = true;
        lock.unlock();
        // Sent into rtpbin's source pad, the event travels upstream to the encoder.
        gst_pad_send_event(
            pad, gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
    }
    return GST_PAD_PROBE_DROP;
}

void SendGate::Open() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (state_ == kClosed) state_ = kOpen;
    }
    cv_.notify_all();
}

void SendGate::Discard() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        state_ = kDiscard;
    }
    cv_.notify_all();
}

}  // namespace media
}  // namespace libwebrtc
