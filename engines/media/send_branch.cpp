// Local tracks and their send branches: encoder bins linked to rtpbin's send pads.
// Attaching runs on the worker; AddStream/RemoveStream on any thread.
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

// The local track of the line's kind, encoded as the plan says, into rtpbin's
// session of the line; what leaves rtpbin waits at the line's gate.
bool Session::AttachSendBranch(Line& line, const sdp::StreamPlan& plan) {
    bool video = line.kind == "video";
    LocalTrack* track = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (LocalTrack& t : local_.tracks)
            if (!t.attaching && t.video == video) {
                t.attaching = true;
                track = &t;
                break;
            }
    }
    if (!track) return false;
    std::string description;
    if (video) {
        unsigned kbps = config_.local_video_bandwidth >= kMinVideoKbps
                            ? config_.local_video_bandwidth
                            : kDefaultVideoKbps;
        description = VideoSendBranch(plan.send_codec, identity_.video_ssrc, kbps);
    } else {
        description = AudioSendBranch(plan.send_codec, identity_.audio_ssrc, LocalAudioSource());
    }
    ElementRef bin = description.empty() ? nullptr : ParseBin(description, "send branch");
    if (!bin) {
        GST_ERROR("no %s send branch for %s", line.kind.c_str(), plan.send_codec.name.c_str());
        return false;
    }
    gst_bin_add(GST_BIN(pipeline_), bin.get());
    std::string n = std::to_string(line.index);
    PadRef out(gst_element_get_static_pad(bin.get(), "src"));
    PadRef in(gst_element_request_pad_simple(rtpbin_, ("send_rtp_sink_" + n).c_str()));
    PadRef sent(gst_element_get_static_pad(rtpbin_, ("send_rtp_src_" + n).c_str()));
    if (!in || !sent || gst_pad_link(out.get(), in.get()) != GST_PAD_LINK_OK) {
        GST_ERROR("cannot link a %s track to rtpbin", line.kind.c_str());
        gst_bin_remove(GST_BIN(pipeline_), bin.get());
        return false;
    }
    SendGate::Install(sent.get(), line.gate);
    if (zarn_timeline_on()) MarkFirstBuffer(bin.get(), out.get(), video);
    MeasureSendBranch(bin.get(), video);
    gst_element_sync_state_with_parent(bin.get());
    RegisterSendBranch(*track, bin.get());
    return true;
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

}  // namespace media
}  // namespace libwebrtc
