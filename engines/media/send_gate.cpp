// The send gate: what rtpbin sends waits here until the transport can carry it.
#include "send_gate.h"

#include <gst/video/video.h>

namespace libwebrtc {
namespace media {

namespace {

constexpr gint64 kStaleUs = 300 * 1000;         // held longer than this: not sent
constexpr gint64 kStalePictureUs = 100 * 1000;  // a picture older than this: not sent

// The first buffer a probe sees (of a list, its first).
GstBuffer* FirstBuffer(GstPadProbeInfo* info) {
    if (GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_BUFFER_LIST) {
        GstBufferList* list = gst_pad_probe_info_get_buffer_list(info);
        return list && gst_buffer_list_length(list) > 0 ? gst_buffer_list_get(list, 0) : nullptr;
    }
    return gst_pad_probe_info_get_buffer(info);
}

// How long ago the buffer's picture was taken, by the pipeline's clock: its
// timestamp in running time (encoders shift theirs by their segment) is when it
// was captured; 0 when that cannot be told.
GstClockTime AgeOf(GstPad* pad, GstBuffer* buffer) {
    if (!buffer || !GST_BUFFER_PTS_IS_VALID(buffer)) return 0;
    GstClockTime taken = GST_CLOCK_TIME_NONE;
    if (GstEvent* event = gst_pad_get_sticky_event(pad, GST_EVENT_SEGMENT, 0)) {
        const GstSegment* segment = nullptr;
        gst_event_parse_segment(event, &segment);
        if (segment && segment->format == GST_FORMAT_TIME)
            taken = gst_segment_to_running_time(segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
        gst_event_unref(event);
    }
    if (!GST_CLOCK_TIME_IS_VALID(taken)) return 0;
    GstClockTime age = 0;
    GstElement* element = gst_pad_get_parent_element(pad);
    if (!element) return 0;
    if (GstClock* clock = gst_element_get_clock(element)) {
        GstClockTime now = gst_clock_get_time(clock) - gst_element_get_base_time(element);
        if (now > taken) age = now - taken;
        gst_object_unref(clock);
    }
    gst_object_unref(element);
    return age;
}

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

// On the branch's streaming thread: waits while closed. Once open, a picture taken
// long before (held behind this one in the branch's queues) is dropped and a fresh
// key frame asked for: sent late, it would show the far end a stale picture and
// set its jitter buffer's timing late, lengthening every wait for a lost packet.
GstPadProbeReturn SendGate::Pass(GstPad* pad, GstPadProbeInfo* info) {
    if (state_ == kOpen && fresh_) return GST_PAD_PROBE_OK;
    if (state_ == kDiscard) return GST_PAD_PROBE_DROP;
    gint64 since = g_get_monotonic_time();
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait(lock, [&] { return state_ != kClosed; });
    if (state_ == kDiscard) return GST_PAD_PROBE_DROP;
    if (!video_) {
        if (g_get_monotonic_time() - since >= kStaleUs) return GST_PAD_PROBE_DROP;
        fresh_ = true;
        return GST_PAD_PROBE_OK;
    }
    GstBuffer* buffer = FirstBuffer(info);
    if (AgeOf(pad, buffer) < kStalePictureUs * GST_USECOND &&
        g_get_monotonic_time() - since < kStaleUs) {
        fresh_ = true;
        return GST_PAD_PROBE_OK;
    }
    // One request per picture dropped: the encoder makes the next one a key frame.
    GstClockTime pts = buffer ? GST_BUFFER_PTS(buffer) : GST_CLOCK_TIME_NONE;
    if (pts != asked_for_ || pts == GST_CLOCK_TIME_NONE) {
        asked_for_ = pts;
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
