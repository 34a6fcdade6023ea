// What the far end sends: one decoding branch per source rtpbin finds, the remote
// tracks and streams over them, and their announcement to the observer.
#include <gst/app/gstappsink.h>

#include <gst/video/video.h>

#include <cstdio>

#include "session.h"

namespace libwebrtc {
namespace media {

namespace {

std::string ReceiveBranchFor(const RemotePad& p, bool clicks) {
    std::string branch =
        p.kind == "video" ? VideoReceiveBranch(p.encoding) : AudioReceiveBranch(p.encoding, clicks);
    if (!branch.empty()) return branch;
    // telephone-event, or what we never asked for: read and dropped.
    GST_INFO("remote %s/%s stream not decoded", p.kind.c_str(), p.encoding.c_str());
    return kDiscardBranch;
}

// A depayloader that lost a packet drops what follows until a key frame and asks for
// one, once. When that key frame is lost as well (a large picture under heavy loss),
// nothing would show until the encoder's safety-net key frame, seconds later. So
// while packets keep coming and no picture has come out of the decoder for
// kKeyFrameRetryMs, the request is made again.
struct PictureWatch {
    std::atomic<gint64> last_picture_us{0};
    gint64 last_request_us = 0;  // the streaming thread's
};

void WatchPictures(GstElement* bin) {
    ElementRef depay = ByName(bin, kDepayName);
    ElementRef out = ByName(bin, kOutName);
    PadRef in(depay ? gst_element_get_static_pad(depay.get(), "sink") : nullptr);
    PadRef decoded(out ? gst_element_get_static_pad(out.get(), "sink") : nullptr);
    if (!in || !decoded) return;
    auto watch = std::make_shared<PictureWatch>();
    watch->last_picture_us = g_get_monotonic_time();
    using Shared = std::shared_ptr<PictureWatch>;
    auto free_watch = [](gpointer d) { delete static_cast<Shared*>(d); };
    gst_pad_add_probe(
        decoded.get(), GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad*, GstPadProbeInfo*, gpointer d) {
            (*static_cast<Shared*>(d))->last_picture_us = g_get_monotonic_time();
            return GST_PAD_PROBE_OK;
        },
        new Shared(watch), free_watch);
    gst_pad_add_probe(
        in.get(), GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad* pad, GstPadProbeInfo*, gpointer d) {
            PictureWatch& w = **static_cast<Shared*>(d);
            gint64 now = g_get_monotonic_time();
            gint64 bound = static_cast<gint64>(kKeyFrameRetryMs) * 1000;
            if (now - w.last_picture_us < bound || now - w.last_request_us < bound)
                return GST_PAD_PROBE_OK;
            w.last_request_us = now;
            // Upstream from the depayloader's input: rtpsession makes a PLI or FIR of it.
            gst_pad_push_event(
                pad, gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
            return GST_PAD_PROBE_OK;
        },
        new Shared(watch), free_watch);
}

// The default output when there seems to be one and it opens, else a fakesink:
// no usable sound card must not cost the call.
ElementRef MakeAudioSink() {
    if (AudioOutputAvailable()) {
        ElementRef sink = MakeElement("autoaudiosink");
        // A bin: its prerolling stays inside it, not taking the playing call
        // pipeline back to PAUSED (see the video branch's appsink).
        if (sink) g_object_set(sink.get(), "async-handling", TRUE, nullptr);
        if (sink && gst_element_set_state(sink.get(), GST_STATE_READY) != GST_STATE_CHANGE_FAILURE)
            return sink;
        if (sink) gst_element_set_state(sink.get(), GST_STATE_NULL);
    }
    ElementRef sink = MakeElement("fakesink");
    if (sink) g_object_set(sink.get(), "sync", FALSE, "async", FALSE, nullptr);
    return sink;
}

// Decoded frames of the branch's appsink go to the track's renderers.
void FeedFanout(GstElement* bin, const std::shared_ptr<VideoFanout>& fanout) {
    ElementRef out = ByName(bin, kOutName);
    if (!out) return;  // not decoded
    GstAppSinkCallbacks cb{};
    cb.new_sample = [](GstAppSink* s, gpointer d) -> GstFlowReturn {
        GstSample* sample = gst_app_sink_pull_sample(s);
        if (!sample) return GST_FLOW_EOS;
        (*static_cast<std::shared_ptr<VideoFanout>*>(d))->Deliver(sample);
        gst_sample_unref(sample);
        return GST_FLOW_OK;
    };
    gst_app_sink_set_callbacks(
        GST_APP_SINK(out.get()), &cb, new std::shared_ptr<VideoFanout>(fanout),
        [](gpointer d) { delete static_cast<std::shared_ptr<VideoFanout>*>(d); });
}

}  // namespace

// rtpbin's pad of one source and payload type of the far end's, on a jitter
// buffer's thread once its first packet is out: recv_rtp_src_<session>_<ssrc>_<pt>.
bool Session::DescribePad(GstPad* pad, RemotePad* p) {
    GCharRef name(gst_pad_get_name(pad));
    unsigned session = 0, ssrc = 0, pt = 0;
    if (!name || std::sscanf(name.get(), "recv_rtp_src_%u_%u_%u", &session, &ssrc, &pt) != 3)
        return false;
    p->mline = session;
    p->stream_id = kRemoteStreamId;
    std::lock_guard<std::mutex> lock(mutex_);
    for (const sdp::StreamPlan& sp : shared_plan_.streams) {
        if (sp.index != session) continue;
        p->kind = sp.kind;
        p->track_id = kRemoteTrackPrefix + sp.kind + std::to_string(session);
        if (!sp.remote_stream_id.empty()) p->stream_id = sp.remote_stream_id;
        if (!sp.remote_track_id.empty()) p->track_id = sp.remote_track_id;
        for (const sdp::Codec& c : sp.receive_codecs)
            if (c.pt == static_cast<int>(pt)) {
                p->encoding = c.name;
                for (char& ch : p->encoding) ch = static_cast<char>(g_ascii_toupper(ch));
            }
    }
    return !p->kind.empty();
}

void Session::OnPadAdded(GstPad* pad) {
    if (GST_PAD_DIRECTION(pad) != GST_PAD_SRC || gate_.closed()) return;
    RemotePad info;
    if (!DescribePad(pad, &info)) return;
    Mark(("media: first " + info.kind + " RTP in (" + info.encoding + ")").c_str());
    // A benchmark's clicking microphone listens for the far end's clicks too.
    bool clicks = LocalAudioSource() == AudioSource::kClicks;
    ElementRef bin = ParseBin(ReceiveBranchFor(info, clicks), "receive branch");
    if (!bin) return;
    if (clicks && info.kind == "audio") ListenToReceiveBranch(bin.get());
    if (info.kind == "video") {
        WatchPictures(bin.get());
        MeasureReceiveBranch(bin.get());
    }
    ElementRef sink;
    if (ByName(bin.get(), kVolumeName)) sink = MakeAudioSink();  // audio is decoded
    scoped_refptr<RTCMediaTrack> track = MakeRemoteTrack(info, bin.get());
    LinkReceiveBranch(pad, bin.get(), sink.get());
    if (track) AnnounceRemoteTrack(info, track);
}

// A video track (even for video we do not decode: it shows nothing), or an
// audio track whose volume follows the branch's; null otherwise.
// A source that replaces an earlier one of its kind (the far end restarted its
// stream) feeds the track already announced and returns null.
scoped_refptr<RTCMediaTrack> Session::MakeRemoteTrack(const RemotePad& p, GstElement* bin) {
    if (p.kind == "video") {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (remote_.video_receiver) {
                auto* known = static_cast<VideoTrackImpl*>(
                    static_cast<RTCVideoTrack*>(remote_.video_receiver->track().get()));
                FeedFanout(bin, known->fanout());
                return nullptr;
            }
        }
        scoped_refptr<VideoTrackImpl> video(
            new RefCountedObject<VideoTrackImpl>(p.track_id, nullptr));
        video->fanout()->KeepLatest();
        FeedFanout(bin, video->fanout());
        return video.get();
    }
    ElementRef volume = ByName(bin, kVolumeName);
    if (!volume) return nullptr;
    scoped_refptr<AudioTrackImpl> audio(new RefCountedObject<AudioTrackImpl>(p.track_id, true));
    audio->control()->Attach(volume.get());
    std::lock_guard<std::mutex> lock(mutex_);
    remote_.volumes.push_back({audio->control(), std::move(volume)});
    return audio.get();
}

void Session::LinkReceiveBranch(GstPad* pad, GstElement* bin, GstElement* sink) {
    gst_bin_add(GST_BIN(pipeline_), bin);
    if (sink) {
        gst_bin_add(GST_BIN(pipeline_), sink);
        gst_element_link(bin, sink);
        gst_element_sync_state_with_parent(sink);
    }
    gst_element_sync_state_with_parent(bin);
    PadRef binpad(gst_element_get_static_pad(bin, "sink"));
    if (gst_pad_link(pad, binpad.get()) != GST_PAD_LINK_OK)
        GST_ERROR("cannot link a remote %s pad", GST_PAD_NAME(pad));
}

// Adds the track to its stream and reports both on the worker (the stream once).
void Session::AnnounceRemoteTrack(const RemotePad& p, scoped_refptr<RTCMediaTrack> track) {
    scoped_refptr<MediaStreamImpl> stream;
    bool new_stream = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        RemoteStream& rs = remote_.streams[p.stream_id];
        if (!rs.stream) rs.stream = new RefCountedObject<MediaStreamImpl>(p.stream_id);
        stream = rs.stream;
        new_stream = !rs.announced;
        rs.announced = true;
        scoped_refptr<RTCRtpReceiver> receiver(
            new RefCountedObject<RtpReceiverImpl>(track, weak_from_this()));
        if (p.kind == "video") {
            stream->AddTrack(
                scoped_refptr<RTCVideoTrack>(static_cast<RTCVideoTrack*>(track.get())));
            remote_.video_receiver = receiver;
        } else {
            stream->AddTrack(
                scoped_refptr<RTCAudioTrack>(static_cast<RTCAudioTrack*>(track.get())));
            remote_.audio_receiver = receiver;
        }
    }
    Post([stream, track, new_stream](Session* s) {
        if (new_stream)
            s->Notify([&](RTCPeerConnectionObserver* o) {
                o->OnAddStream(scoped_refptr<RTCMediaStream>(stream.get()));
            });
        s->Notify([&](RTCPeerConnectionObserver* o) {
            o->OnAddTrack(scoped_refptr<RTCMediaStream>(stream.get()), track);
        });
    });
}

scoped_refptr<RTCRtpReceiver> Session::Receiver(bool video) {
    std::lock_guard<std::mutex> lock(mutex_);
    return video ? remote_.video_receiver : remote_.audio_receiver;
}

}  // namespace media
}  // namespace libwebrtc
