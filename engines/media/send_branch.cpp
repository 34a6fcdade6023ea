// Local tracks and their send branches: encoder bins linked to webrtcbin's
// sink pads. Attaching runs on the worker; AddStream/RemoveStream on any thread.
#include <cstring>
#include <set>

#include "session.h"

namespace libwebrtc {
namespace media {

int Session::AddStream(scoped_refptr<RTCMediaStream> stream) {
    auto* ours = dynamic_cast<MediaStreamImpl*>(stream.get());
    if (!ours) return -1;
    std::lock_guard<std::mutex> lock(mutex_);
    if (shut_) return -1;
    local_.streams.push_back(stream);
    Mark("media: stream added");
    auto add = [&](scoped_refptr<RTCMediaTrack> track, LocalTrack t) {
        for (const LocalTrack& existing : local_.tracks)
            if (existing.track == track) return;
        t.track = track;
        t.stream_id = ours->id();
        local_.tracks.push_back(std::move(t));
        local_.senders.push_back(new RefCountedObject<RtpSenderImpl>(track));
    };
    for (auto& a : ours->audio_tracks()) {
        auto* at = dynamic_cast<AudioTrackImpl*>(a.get());
        if (!at || at->remote()) continue;
        LocalTrack t;
        t.control = at->control();
        add(a.get(), std::move(t));
    }
    for (auto& v : ours->video_tracks()) {
        auto* vt = dynamic_cast<VideoTrackImpl*>(v.get());
        if (!vt || vt->remote()) continue;
        LocalTrack t;
        t.video = true;
        t.fanout = vt->fanout();
        add(v.get(), std::move(t));
    }
    return 0;
}

int Session::RemoveStream(scoped_refptr<RTCMediaStream> stream) {
    auto* ours = dynamic_cast<MediaStreamImpl*>(stream.get());
    if (!ours) return -1;
    std::lock_guard<std::mutex> lock(mutex_);
    // Tracks already negotiated keep flowing: there is no renegotiation.
    std::set<RTCMediaTrack*> ids;
    for (auto& a : ours->audio_tracks()) ids.insert(a.get());
    for (auto& v : ours->video_tracks()) ids.insert(v.get());
    for (auto it = local_.tracks.begin(); it != local_.tracks.end();) {
        if (it->attaching || !ids.count(it->track.get())) {
            ++it;
            continue;
        }
        RTCMediaTrack* t = it->track.get();
        for (auto s = local_.senders.begin(); s != local_.senders.end(); ++s)
            if ((*s)->track().get() == t) {
                local_.senders.erase(s);
                break;
            }
        it = local_.tracks.erase(it);
    }
    return 0;
}

scoped_refptr<RTCRtpSender> Session::Sender(bool video, const char* label) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& s : local_.senders) {
        bool is_video = !std::strcmp(s->track()->kind(), "video");
        if (is_video == video && (!label || !std::strcmp(s->id(), label))) return s;
    }
    return nullptr;
}

// Both ends make their own parameter sets and levels; left in the caps they
// make webrtcbin find the far end's H264 offer incompatible. The parameter
// sets travel in-band (config-interval=-1).
static GstPadProbeReturn StripH264Parameters(GstPad*, GstPadProbeInfo* info, gpointer) {
    GstEvent* ev = GST_PAD_PROBE_INFO_EVENT(info);
    if (GST_EVENT_TYPE(ev) != GST_EVENT_CAPS) return GST_PAD_PROBE_OK;
    GstCaps* current = nullptr;
    gst_event_parse_caps(ev, &current);
    CapsRef caps(gst_caps_copy(current));
    gst_structure_remove_fields(gst_caps_get_structure(caps.get(), 0), "sprop-parameter-sets",
                                "profile-level-id", "profile", nullptr);
    gst_event_unref(ev);
    GST_PAD_PROBE_INFO_DATA(info) = gst_event_new_caps(caps.get());
    return GST_PAD_PROBE_OK;
}

bool Session::AttachTrack(LocalTrack& t, int mline, int video_payload) {
    ElementRef bin;
    if (t.video) {
        unsigned kbps = config_.local_video_bandwidth >= kMinVideoKbps
                            ? config_.local_video_bandwidth
                            : kDefaultVideoKbps;
        bin = ParseBin(VideoSendBranch(kbps, video_payload), "send branch");
    } else {
        bin = ParseBin(AudioSendBranch(UseAudioCaptureDevice()), "send branch");
    }
    if (!bin) return false;
    gst_bin_add(GST_BIN(pipeline_), bin.get());
    if (!LinkToWebrtc(bin.get(), t, mline)) {
        GST_ERROR("cannot link a %s track to webrtcbin", t.video ? "video" : "audio");
        gst_bin_remove(GST_BIN(pipeline_), bin.get());
        return false;
    }
    gst_element_sync_state_with_parent(bin.get());
    RegisterSendBranch(t, bin.get());
    return true;
}

// Links the branch to sink_<mline> (or a new sink pad) and names its stream.
// Timeline marks: the first raw picture or sound into a send branch, and the first
// encoded buffer out of it.
void Session::MarkFirstBuffer(GstElement* bin, GstPad* out, bool video) {
    auto once = [](GstPad*, GstPadProbeInfo*, gpointer data) {
        auto* what = static_cast<std::pair<unsigned long, const char*>*>(data);
        zarn_timeline_mark(what->first, what->second);
        return GST_PAD_PROBE_REMOVE;
    };
    auto free_what = [](gpointer data) {
        delete static_cast<std::pair<unsigned long, const char*>*>(data);
    };
    gst_pad_add_probe(out, GST_PAD_PROBE_TYPE_BUFFER, once,
                      new std::pair<unsigned long, const char*>(
                          timeline_id_, video ? "media: first encoded video out of the branch"
                                              : "media: first encoded audio out of the branch"),
                      free_what);
    ElementRef src = ByName(bin, video ? kSrcName : kVolumeName);
    PadRef in(src ? gst_element_get_static_pad(src.get(), "src") : nullptr);
    if (in)
        gst_pad_add_probe(in.get(), GST_PAD_PROBE_TYPE_BUFFER, once,
                          new std::pair<unsigned long, const char*>(
                              timeline_id_, video ? "media: first raw video into the branch"
                                                  : "media: first raw audio into the branch"),
                          free_what);
}

bool Session::LinkToWebrtc(GstElement* bin, const LocalTrack& t, int mline) {
    std::string pad_name = mline >= 0 ? "sink_" + std::to_string(mline) : "sink_%u";
    PadRef sinkpad(gst_element_request_pad_simple(webrtc_, pad_name.c_str()));
    PadRef srcpad(gst_element_get_static_pad(bin, "src"));
    if (t.video)
        gst_pad_add_probe(srcpad.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, StripH264Parameters,
                          nullptr, nullptr);
    if (zarn_timeline_on()) MarkFirstBuffer(bin, srcpad.get(), t.video);
    bool linked = sinkpad && gst_pad_link(srcpad.get(), sinkpad.get()) == GST_PAD_LINK_OK;
    if (sinkpad && g_object_class_find_property(G_OBJECT_GET_CLASS(sinkpad.get()), "msid"))
        g_object_set(sinkpad.get(), "msid", t.stream_id.c_str(), nullptr);
    if (!linked && sinkpad) gst_element_release_request_pad(webrtc_, sinkpad.get());
    return linked;
}

// Connects the branch's appsrc/volume to the track, unless Close ran meanwhile.
void Session::RegisterSendBranch(LocalTrack& t, GstElement* bin) {
    std::lock_guard<std::mutex> lock(mutex_);
    t.attached = true;
    if (shut_) return;
    if (t.video) {
        t.appsrc = ByName(bin, kSrcName);
        t.fanout->AddAppSrc(t.appsrc.get());
    } else {
        t.volume = ByName(bin, kVolumeName);
        t.control->Attach(t.volume.get());
        if (!local_.mixer) local_.mixer = ByName(bin, kMixerName);
    }
}

void Session::AttachForOffer() {
    std::vector<LocalTrack*> pending;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        // Audio first: the m-line order most peers expect.
        for (int pass = 0; pass < 2; ++pass)
            for (LocalTrack& t : local_.tracks)
                if (!t.attaching && t.video == (pass == 1)) {
                    t.attaching = true;
                    pending.push_back(&t);
                }
    }
    for (LocalTrack* t : pending) AttachTrack(*t, -1);
}

// One local track of the kind on each of the offer's audio/video m-lines. Video
// is paid with the payload type the offer gave the H264 we send: webrtcbin answers
// a format only when the branch's caps match it, and a browser lists VP8 first.
void Session::AttachForAnswer(const GstSDPMessage* offer) {
    std::string offer_text;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        offer_text = remote_.sdp;
    }
    for (guint i = 0; i < gst_sdp_message_medias_len(offer); ++i) {
        const GstSDPMedia* m = gst_sdp_message_get_media(offer, i);
        if (gst_sdp_media_get_port(m) == 0) continue;  // rejected m-line
        bool video = !g_strcmp0(gst_sdp_media_get_media(m), "video");
        bool audio = !g_strcmp0(gst_sdp_media_get_media(m), "audio");
        if (!video && !audio) continue;
        LocalTrack* t = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            for (LocalTrack& lt : local_.tracks)
                if (!lt.attaching && lt.video == video) {
                    lt.attaching = true;
                    t = &lt;
                    break;
                }
        }
        if (!t) continue;
        int payload = video ? sdp::PickH264Payload(offer_text, i) : -1;
        AttachTrack(*t, static_cast<int>(i), payload >= 0 ? payload : kVideoPayload);
    }
}

void Session::AddRecvOnlyTransceivers() {
    bool has_audio = false, has_video = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const LocalTrack& t : local_.tracks)
            if (t.attached) (t.video ? has_video : has_audio) = true;
    }
    auto add = [&](const char* caps_text) {
        CapsRef caps(gst_caps_from_string(caps_text));
        GstWebRTCRTPTransceiver* trans = nullptr;
        g_signal_emit_by_name(webrtc_, "add-transceiver",
                              GST_WEBRTC_RTP_TRANSCEIVER_DIRECTION_RECVONLY, caps.get(), &trans);
        GstRef<GstWebRTCRTPTransceiver> drop(trans);
    };
    if (config_.offer_to_receive_audio && !has_audio) add(kAudioRtpCaps);
    if (config_.offer_to_receive_video && !has_video) add(kVideoRtpCaps);
}

}  // namespace media
}  // namespace libwebrtc
