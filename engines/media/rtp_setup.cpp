// rtpbin as the call plan wants it: what each payload type is, retransmission
// (RTX, RFC 4588) both ways, and the jitter buffers. One rtpbin session per m-line,
// numbered as the m-line. The handlers run on whatever thread rtpbin asks from and
// read the plan's copy under mutex_.
#include <gst/rtp/rtp.h>

#include <algorithm>
#include <cstdio>

#include "session.h"

namespace libwebrtc {
namespace media {

namespace {

std::string Upper(std::string s) {
    for (char& c : s) c = static_cast<char>(g_ascii_toupper(c));
    return s;
}

// A bin around one element with the pads rtpbin looks for: sink_<n>, src_<n>.
// Floating, as rtpbin takes it.
GstElement* AuxBin(ElementRef element_ref, guint session) {
    GstElement* bin = gst_bin_new(nullptr);
    GstElement* element = element_ref.get();
    gst_bin_add(GST_BIN(bin), element);
    std::string n = std::to_string(session);
    for (const char* dir : {"sink", "src"}) {
        PadRef target(gst_element_get_static_pad(element, dir));
        gst_element_add_pad(bin,
                            gst_ghost_pad_new((std::string(dir) + "_" + n).c_str(), target.get()));
    }
    return bin;
}

}  // namespace

void Session::ConnectRtpBin() {
    // AVPF: feedback (NACK, PLI) goes out at once instead of with the next report.
    g_object_set(rtpbin_, "latency", kVideoJitterFloorMs, "rtp-profile", GST_RTP_PROFILE_AVPF,
                 "do-lost", TRUE, nullptr);
    ConnectSignal(
        rtpbin_, "request-pt-map", +[](GstElement*, guint session, guint pt, gpointer d) {
            auto s = static_cast<std::weak_ptr<Session>*>(d)->lock();
            return s ? s->PayloadCaps(session, pt) : static_cast<GstCaps*>(nullptr);
        });
    ConnectSignal(
        rtpbin_, "request-aux-sender", +[](GstElement*, guint session, gpointer d) {
            auto s = static_cast<std::weak_ptr<Session>*>(d)->lock();
            return s ? s->RtxSender(session) : static_cast<GstElement*>(nullptr);
        });
    ConnectSignal(
        rtpbin_, "request-aux-receiver", +[](GstElement*, guint session, gpointer d) {
            auto s = static_cast<std::weak_ptr<Session>*>(d)->lock();
            return s ? s->RtxReceiver(session) : static_cast<GstElement*>(nullptr);
        });
    ConnectSignal(
        rtpbin_, "new-jitterbuffer",
        +[](GstElement*, GstElement* jb, guint session, guint, gpointer d) {
            if (auto s = static_cast<std::weak_ptr<Session>*>(d)->lock())
                s->ConfigureJitterBuffer(jb, session);
        });
    ConnectSignal(
        rtpbin_, "pad-added", +[](GstElement*, GstPad* pad, gpointer d) {
            if (auto s = static_cast<std::weak_ptr<Session>*>(d)->lock()) s->OnPadAdded(pad);
        });
}

// Caps of one payload type the far end may send on the session; null for one it
// may not (rtpbin then drops its packets).
GstCaps* Session::PayloadCaps(guint session, guint pt) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const sdp::StreamPlan& sp : shared_plan_.streams) {
        if (sp.index != session || !sp.active) continue;
        for (const sdp::Codec& c : sp.receive_codecs) {
            if (c.pt != static_cast<int>(pt)) continue;
            GstCaps* caps = gst_caps_new_simple("application/x-rtp", "media", G_TYPE_STRING,
                                                sp.kind.c_str(), "encoding-name", G_TYPE_STRING,
                                                Upper(c.name).c_str(), "clock-rate", G_TYPE_INT,
                                                c.clock_rate, "payload", G_TYPE_INT, c.pt, nullptr);
            GstStructure* st = gst_caps_get_structure(caps, 0);
            // What the depayloaders' key-frame requests may become on the wire.
            if (sp.pli) gst_structure_set(st, "rtcp-fb-nack-pli", G_TYPE_BOOLEAN, TRUE, nullptr);
            if (sp.fir) gst_structure_set(st, "rtcp-fb-ccm-fir", G_TYPE_BOOLEAN, TRUE, nullptr);
            if (sp.nack) gst_structure_set(st, "rtcp-fb-nack", G_TYPE_BOOLEAN, TRUE, nullptr);
            return caps;
        }
    }
    return nullptr;
}

// RFC 4585 lets a session send feedback early only once per regular RTCP interval,
// and with feedback that interval follows the RTCP bandwidth alone: half a second
// at the default share of a call's bit rate, by which time a NACK repairs nothing.
// Lines with feedback get an RTCP budget of their own (a ceiling, not a rate), so
// NACKs and PLIs go out within a few tens of milliseconds; on a LAN the cost is a
// few small packets a second.
void Session::TuneRtpSession(const sdp::StreamPlan& plan) {
    if (!plan.nack && !plan.pli && !plan.fir) return;
    GstElement* session = nullptr;
    g_signal_emit_by_name(rtpbin_, "get-session", static_cast<guint>(plan.index), &session);
    if (!session) return;
    g_object_set(session, "rtcp-fraction", kFeedbackRtcpBytesPerS, nullptr);
    gst_object_unref(session);
}

// Keeps what we sent for a second and sends it again, in its own payload type and
// SSRC, when the far end asks with a NACK.
GstElement* Session::RtxSender(guint session) {
    int pt = -1, rtx_pt = -1;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const sdp::StreamPlan& sp : shared_plan_.streams)
            if (sp.index == session && sp.active && sp.kind == "video") {
                pt = sp.send_codec.pt;
                rtx_pt = sp.send_rtx_pt;
            }
    }
    if (pt < 0 || rtx_pt < 0) return nullptr;
    ElementRef rtx = MakeElement("rtprtxsend");
    if (!rtx) return nullptr;
    GstStructure* pts = gst_structure_new("application/x-rtp-pt-map", std::to_string(pt).c_str(),
                                          G_TYPE_UINT, static_cast<guint>(rtx_pt), nullptr);
    GstStructure* ssrcs = gst_structure_new("application/x-rtp-ssrc-map",
                                            std::to_string(identity_.video_ssrc).c_str(),
                                            G_TYPE_UINT, identity_.video_rtx_ssrc, nullptr);
    g_object_set(rtx.get(), "payload-type-map", pts, "ssrc-map", ssrcs, "max-size-time",
                 kRtxHistoryMs, nullptr);
    gst_structure_free(pts);
    gst_structure_free(ssrcs);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        rtx_elements_.emplace_back(GST_ELEMENT(gst_object_ref(rtx.get())));
    }
    return AuxBin(std::move(rtx), session);
}

// Turns the far end's retransmissions back into the packets they repair.
GstElement* Session::RtxReceiver(guint session) {
    GstStructure* pts = gst_structure_new_empty("application/x-rtp-pt-map");
    bool any = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const sdp::StreamPlan& sp : shared_plan_.streams) {
            if (sp.index != session || !sp.active) continue;
            for (const sdp::Codec& c : sp.receive_codecs) {
                int apt = c.Is("rtx") ? std::atoi(c.Param("apt").c_str()) : -1;
                if (apt < 0 || apt > 127 || c.Param("apt").empty()) continue;
                // Keyed like the sender's: original payload type -> its rtx type.
                gst_structure_set(pts, std::to_string(apt).c_str(), G_TYPE_UINT,
                                  static_cast<guint>(c.pt), nullptr);
                any = true;
            }
        }
    }
    ElementRef rtx = any ? MakeElement("rtprtxreceive") : nullptr;
    if (rtx) g_object_set(rtx.get(), "payload-type-map", pts, nullptr);
    gst_structure_free(pts);
    if (rtx) {
        std::lock_guard<std::mutex> lock(mutex_);
        rtx_elements_.emplace_back(GST_ELEMENT(gst_object_ref(rtx.get())));
    }
    return rtx ? AuxBin(std::move(rtx), session) : nullptr;
}

void Session::ConfigureJitterBuffer(GstElement* jb, guint session) {
    bool nack = false, video = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const sdp::StreamPlan& sp : shared_plan_.streams)
            if (sp.index == session && sp.active) {
                nack = sp.nack;
                video = sp.kind == "video";
            }
        jitter_buffers_.push_back({session, video, ElementRef(GST_ELEMENT(gst_object_ref(jb)))});
    }
    // In order on a LAN: a stream starts after a few packets, not after the latency.
    // The latency starts at its floor and follows the jitter (AdaptJitterBuffers).
    g_object_set(jb, "faststart-min-packets", kFaststartPackets, "do-retransmission", nack,
                 "latency", video ? kVideoJitterFloorMs : kAudioJitterFloorMs, nullptr);
    // Left to itself the jitter buffer asks for a missing packet half a packet
    // interval after the gap and again one interval later: at 15 pictures a
    // second, one packet each, that is 33 and 66 ms, two requests in the latency,
    // and a picture lost in one of eight at 20 % loss. A round trip (with twice the
    // jitter) still bounds the retries on a slow path.
    if (nack)
        g_object_set(jb, "rtx-delay", kRtxFirstRequestMs, "rtx-min-retry-timeout", kRtxMinRetryMs,
                     nullptr);
}

// Once a second on the worker. A jitter buffer holds a packet only while an
// earlier one is missing (the decoded video goes to the application at once) and
// gives the audio output its timing: its latency is how long a gap may wait for a
// late or retransmitted packet, and what every audio packet waits before it plays.
// It follows what was measured: three times the jitter, and for video a round trip
// for each of two retransmission requests, over a floor; it rises at once and
// comes down slowly.
void Session::AdaptJitterBuffers() {
    std::vector<std::pair<GstElement*, bool>> buffers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (JitterBuffer& j : jitter_buffers_)
            buffers.emplace_back(GST_ELEMENT(gst_object_ref(j.element.get())), j.video);
    }
    for (auto& b : buffers) {
        GstStructure* stats = nullptr;
        g_object_get(b.first, "stats", &stats, nullptr);
        guint64 jitter_ns = 0, rtt_ns = 0;
        if (stats) {
            gst_structure_get_uint64(stats, "avg-jitter", &jitter_ns);
            gst_structure_get_uint64(stats, "rtx-rtt", &rtt_ns);
            gst_structure_free(stats);
        }
        guint floor = b.second ? kVideoJitterFloorMs : kAudioJitterFloorMs;
        guint target = floor + static_cast<guint>(3 * jitter_ns / GST_MSECOND);
        if (b.second) target += static_cast<guint>(2 * rtt_ns / GST_MSECOND);
        target = std::min(target, b.second ? kVideoJitterMaxMs : kAudioJitterMaxMs);
        guint current = 0;
        g_object_get(b.first, "latency", &current, nullptr);
        guint next = target >= current ? target : std::max(target, current - kJitterStepDownMs);
        if (next != current) g_object_set(b.first, "latency", next, nullptr);
        if (!b.second) audio_jitter_latency_ms_->store(static_cast<int>(next));
        gst_object_unref(b.first);
    }
}

guint Session::JitterLatencyMs(guint session) {
    std::lock_guard<std::mutex> lock(mutex_);
    guint latency = 0;
    for (JitterBuffer& j : jitter_buffers_)
        if (j.session == session) g_object_get(j.element.get(), "latency", &latency, nullptr);
    return latency;
}

}  // namespace media
}  // namespace libwebrtc
