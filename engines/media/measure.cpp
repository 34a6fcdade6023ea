// What benchmarks read off a call, on the opt-in timeline (engine_link.h): the
// clicks of the stand-in microphone heard at the far end, key frames sent, and the
// per-line RTP figures (packets, losses, NACKs, key frame requests, jitter) when
// the call closes. Key frame requests ("plis") are counted as the events rtpsession
// makes of a PLI or FIR, since it counts FIRs about no source of its own. Nothing here runs unless
// the timeline is on (or the clicks are asked for).
#include <cinttypes>
#include <cstdio>
#include <vector>

#include "session.h"
#include "stamp.h"

namespace libwebrtc {
namespace media {

namespace {

// The microphone's side: a buffer leaves the source when its last sample is
// captured, so its first sample was captured one buffer's duration ago.
GstPadProbeReturn DrawClicks(GstPad*, GstPadProbeInfo* info, gpointer) {
    GstBuffer* buffer = gst_buffer_make_writable(gst_pad_probe_info_get_buffer(info));
    GST_PAD_PROBE_INFO_DATA(info) = buffer;
    // Silence comes flagged as a gap, which the elements after skip unread.
    GST_BUFFER_FLAG_UNSET(buffer, GST_BUFFER_FLAG_GAP);
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_WRITE)) return GST_PAD_PROBE_OK;
    size_t count = map.size / 2;
    uint64_t start = static_cast<uint64_t>(g_get_monotonic_time()) -
                     count * 1000000 / zarnrtc::stamp::kClickRate;
    zarnrtc::stamp::Clicks(reinterpret_cast<int16_t*>(map.data), count, start);
    gst_buffer_unmap(buffer, &map);
    return GST_PAD_PROBE_OK;
}

struct Listener {
    unsigned long timeline_id;
    std::shared_ptr<std::atomic<int>> jitter_latency_ms;
    uint64_t last_made_us = 0;
    std::vector<int16_t> samples;  // the last 10 ms of the previous buffer, then this one
};

constexpr size_t kQuietSamples = zarnrtc::stamp::kClickRate / 100;  // 10 ms

// The far end's side: a decoded buffer reaches the output as its packet leaves the
// jitter buffer; an output synchronised to the clock plays it that buffer's latency
// later. So a click is heard at its offset in the buffer, plus that latency.
GstPadProbeReturn ListenForClicks(GstPad*, GstPadProbeInfo* info, gpointer data) {
    auto* listener = static_cast<Listener*>(data);
    GstBuffer* buffer = gst_pad_probe_info_get_buffer(info);
    uint64_t now = static_cast<uint64_t>(g_get_monotonic_time());
    uint64_t plays = now + static_cast<uint64_t>(listener->jitter_latency_ms->load()) * 1000;
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ)) return GST_PAD_PROBE_OK;
    std::vector<int16_t>& s = listener->samples;
    size_t kept = s.size();
    const auto* in = reinterpret_cast<const int16_t*>(map.data);
    s.insert(s.end(), in, in + map.size / 2);
    gst_buffer_unmap(buffer, &map);
    uint64_t start = plays - kept * 1000000 / zarnrtc::stamp::kClickRate;
    uint64_t made = 0;
    size_t offset = 0;
    if (zarnrtc::stamp::FindClick(s.data(), s.size(), start, &made, &offset) &&
        made != listener->last_made_us) {
        listener->last_made_us = made;
        uint64_t heard = start + offset * 1000000 / zarnrtc::stamp::kClickRate;
        char mark[96];
        std::snprintf(mark, sizeof mark, "stats: audio click made_us=%" PRIu64 " heard_us=%" PRIu64,
                      made, heard);
        zarn_timeline_mark(listener->timeline_id, mark);
    }
    if (s.size() > kQuietSamples) s.erase(s.begin(), s.end() - kQuietSamples);
    return GST_PAD_PROBE_OK;
}

// One source's figures of an rtpsession's "stats" structure.
struct SourceFigures {
    bool internal = false;
    guint64 packets_sent = 0, packets_received = 0;
    guint recv_nack = 0, sent_nack = 0, recv_pli = 0, sent_pli = 0, recv_fir = 0, sent_fir = 0;
    gint packets_lost = 0;
    guint jitter = 0;
    gint clock_rate = 0;
    guint round_trip = 0;  // 1/65536 s
};

SourceFigures ReadSource(const GstStructure* s) {
    SourceFigures f;
    gst_structure_get_boolean(s, "internal", reinterpret_cast<gboolean*>(&f.internal));
    gst_structure_get_uint64(s, "packets-sent", &f.packets_sent);
    gst_structure_get_uint64(s, "packets-received", &f.packets_received);
    gst_structure_get_uint(s, "recv-nack-count", &f.recv_nack);
    gst_structure_get_uint(s, "sent-nack-count", &f.sent_nack);
    gst_structure_get_uint(s, "recv-pli-count", &f.recv_pli);
    gst_structure_get_uint(s, "sent-pli-count", &f.sent_pli);
    gst_structure_get_uint(s, "recv-fir-count", &f.recv_fir);
    gst_structure_get_uint(s, "sent-fir-count", &f.sent_fir);
    gst_structure_get_int(s, "packets-lost", &f.packets_lost);
    gst_structure_get_uint(s, "jitter", &f.jitter);
    gst_structure_get_int(s, "clock-rate", &f.clock_rate);
    gst_structure_get_uint(s, "rb-round-trip", &f.round_trip);
    return f;
}

}  // namespace

namespace {

// Counts the key frame requests (PLI or FIR, as rtpsession turns them into events)
// passing a pad upstream.
void CountKeyFrameRequests(GstPad* pad, const std::shared_ptr<std::atomic<int>>& counter) {
    gst_pad_add_probe(
        pad, GST_PAD_PROBE_TYPE_EVENT_UPSTREAM,
        [](GstPad*, GstPadProbeInfo* info, gpointer data) {
            GstEvent* event = GST_PAD_PROBE_INFO_EVENT(info);
            if (GST_EVENT_TYPE(event) == GST_EVENT_CUSTOM_UPSTREAM &&
                gst_structure_has_name(gst_event_get_structure(event), "GstForceKeyUnit"))
                (*static_cast<std::shared_ptr<std::atomic<int>>*>(data))->fetch_add(1);
            return GST_PAD_PROBE_OK;
        },
        new std::shared_ptr<std::atomic<int>>(counter),
        [](gpointer d) { delete static_cast<std::shared_ptr<std::atomic<int>>*>(d); });
}

}  // namespace

void Session::MeasureSendBranch(GstElement* bin, bool video) {
    if (!video) {
        ElementRef mic = ByName(bin, kMicName);
        PadRef out(mic ? gst_element_get_static_pad(mic.get(), "src") : nullptr);
        if (out)
            gst_pad_add_probe(out.get(), GST_PAD_PROBE_TYPE_BUFFER, DrawClicks, nullptr, nullptr);
        return;
    }
    if (!zarn_timeline_on()) return;
    // Key frames as they leave the encoder: one buffer per picture into the payloader.
    ElementRef pay = ByName(bin, kPayName);
    PadRef in(pay ? gst_element_get_static_pad(pay.get(), "sink") : nullptr);
    PadRef out(pay ? gst_element_get_static_pad(pay.get(), "src") : nullptr);
    if (!in || !out) return;
    CountKeyFrameRequests(out.get(), key_frame_requests_received_);
    auto counter = key_frames_sent_;
    gst_pad_add_probe(
        in.get(), GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad*, GstPadProbeInfo* info, gpointer data) {
            GstBuffer* b = gst_pad_probe_info_get_buffer(info);
            if (!GST_BUFFER_FLAG_IS_SET(b, GST_BUFFER_FLAG_DELTA_UNIT))
                (*static_cast<std::shared_ptr<std::atomic<int>>*>(data))->fetch_add(1);
            return GST_PAD_PROBE_OK;
        },
        new std::shared_ptr<std::atomic<int>>(counter),
        [](gpointer d) { delete static_cast<std::shared_ptr<std::atomic<int>>*>(d); });
}

void Session::MeasureReceiveBranch(GstElement* bin) {
    if (!zarn_timeline_on()) return;
    ElementRef depay = ByName(bin, kDepayName);
    PadRef in(depay ? gst_element_get_static_pad(depay.get(), "sink") : nullptr);
    if (in) CountKeyFrameRequests(in.get(), key_frame_requests_sent_);
}

void Session::ListenToReceiveBranch(GstElement* bin) {
    ElementRef volume = ByName(bin, kVolumeName);
    PadRef out(volume ? gst_element_get_static_pad(volume.get(), "src") : nullptr);
    if (!out) return;
    gst_pad_add_probe(out.get(), GST_PAD_PROBE_TYPE_BUFFER, ListenForClicks,
                      new Listener{timeline_id_, audio_jitter_latency_ms_, 0, {}},
                      [](gpointer d) { delete static_cast<Listener*>(d); });
}

// Before the pipeline stops: what each line carried, one timeline line per kind.
void Session::ReportStats() {
    if (!zarn_timeline_on() || !rtpbin_) return;
    guint retransmitted = 0, rtx_received = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const ElementRef& e : rtx_elements_) {
            guint n = 0;
            g_object_get(e.get(), "num-rtx-packets", &n, nullptr);
            bool sender =
                !g_strcmp0(GST_OBJECT_NAME(gst_element_get_factory(e.get())), "rtprtxsend");
            (sender ? retransmitted : rtx_received) += n;
        }
    }
    std::vector<std::pair<guint, std::string>> lines;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const sdp::StreamPlan& sp : shared_plan_.streams)
            if (sp.active) lines.emplace_back(static_cast<guint>(sp.index), sp.kind);
    }
    for (const auto& line : lines) {
        GstElement* session = nullptr;
        g_signal_emit_by_name(rtpbin_, "get-session", line.first, &session);
        if (!session) continue;
        GstStructure* stats = nullptr;
        g_object_get(session, "stats", &stats, nullptr);
        gst_object_unref(session);
        if (!stats) continue;
        SourceFigures ours, theirs;
        // A GValueArray of structures, one per source.
        const GValue* value = gst_structure_get_value(stats, "source-stats");
        G_GNUC_BEGIN_IGNORE_DEPRECATIONS
        GValueArray* sources = value && G_VALUE_HOLDS_BOXED(value)
                                   ? static_cast<GValueArray*>(g_value_get_boxed(value))
                                   : nullptr;
        for (guint i = 0; sources && i < sources->n_values; ++i) {
            const GValue* v = g_value_array_get_nth(sources, i);
            G_GNUC_END_IGNORE_DEPRECATIONS
            if (!GST_VALUE_HOLDS_STRUCTURE(v)) continue;
            SourceFigures f = ReadSource(gst_value_get_structure(v));
            if (f.internal && f.packets_sent >= ours.packets_sent) ours = f;
            if (!f.internal && f.packets_received >= theirs.packets_received) theirs = f;
        }
        gst_structure_free(stats);
        // Feedback about our stream is counted on our source, feedback we sent on
        // theirs; the round trip comes from their reports about our stream.
        double jitter_ms = theirs.clock_rate > 0 ? 1000.0 * theirs.jitter / theirs.clock_rate : 0;
        double rtt_ms = 1000.0 * theirs.round_trip / 65536.0;
        bool video = line.second == "video";
        char mark[384];
        std::snprintf(mark, sizeof mark,
                      "stats: %s sent_packets=%" PRIu64
                      " nacks_received=%u plis_received=%d "
                      "key_frames_sent=%d received_packets=%" PRIu64
                      " lost_packets=%d "
                      "nacks_sent=%u plis_sent=%d retransmitted=%u rtx_received=%u jitter_ms=%.1f "
                      "rtt_ms=%.1f latency_ms=%u",
                      line.second.c_str(), ours.packets_sent, ours.recv_nack,
                      video ? key_frame_requests_received_->load() : 0,
                      video ? key_frames_sent_->load() : 0, theirs.packets_received,
                      theirs.packets_lost, theirs.sent_nack,
                      video ? key_frame_requests_sent_->load() : 0, video ? retransmitted : 0,
                      video ? rtx_received : 0, jitter_ms, rtt_ms, JitterLatencyMs(line.first));
        zarn_timeline_mark(timeline_id_, mark);
    }
}

}  // namespace media
}  // namespace libwebrtc
