// Session set-up (pipeline, rtpbin) and teardown.
#include "session.h"

namespace libwebrtc {
namespace media {

Session::~Session() {
    Close();
    for (auto& p : local_.playbacks) {
        GstElement* pipeline = p.pipeline.release();
        Reap([pipeline] { gst_object_unref(pipeline); });
    }
    if (pipeline_) {
        // Possibly on one of GStreamer's own threads: unref elsewhere. The ICE
        // agent goes after the elements that use it.
        GstElement* pipeline = pipeline_;
        std::shared_ptr<IceAgent> ice = std::move(ice_);
        Reap([pipeline, ice]() mutable {
            gst_element_set_state(pipeline, GST_STATE_NULL);
            gst_object_unref(pipeline);
            ice.reset();
        });
    }
}

bool Session::Init() {
    pipeline_ = gst_pipeline_new(nullptr);
    if (!pipeline_) return false;
    gst_object_ref_sink(pipeline_);
    if (!MakeRtpBin()) return false;
    Mark("media: peer connection made");
    InstallBusDropHandler(pipeline_, "call");
    if (gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        GST_ERROR("call pipeline refused to start");
        return false;
    }
    return true;
}

bool Session::MakeRtpBin() {
    ElementRef rtpbin = MakeElement("rtpbin");
    if (!rtpbin) {
        GST_ERROR("rtpbin missing (gstreamer1.0-plugins-good)");
        return false;
    }
    rtpbin_ = rtpbin.get();
    gst_bin_add(GST_BIN(pipeline_), rtpbin_);
    ConnectRtpBin();
    return true;
}

void Session::Close() {
    gate_.Close();
    DetachAll();
}

void Session::DetachAll() {
    std::vector<std::pair<std::shared_ptr<VideoFanout>, ElementRef>> fanouts;
    std::vector<RemoteVolume> volumes;
    std::vector<GstElement*> file_pipelines;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (shut_) return;
        shut_ = true;
        for (LocalTrack& t : local_.tracks) {
            if (t.appsrc) fanouts.emplace_back(t.fanout, std::move(t.appsrc));
            if (t.volume) volumes.push_back({t.control, std::move(t.volume)});
        }
        for (RemoteVolume& v : remote_.volumes) volumes.push_back(std::move(v));
        remote_.volumes.clear();
        for (auto& p : local_.playbacks) file_pipelines.push_back(p.pipeline.get());
    }
    worker_.Stop();
    // No streaming thread may wait at a gate while the pipeline stops.
    std::vector<std::function<void()>> closers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closers.swap(on_close_);
    }
    for (auto& close : closers) close();
    ReportStats();
    for (auto& f : fanouts) f.first->RemoveAppSrc(f.second.get());
    for (auto& v : volumes) v.control->Detach(v.volume.get());
    for (GstElement* p : file_pipelines) gst_element_set_state(p, GST_STATE_NULL);
    // Waits for the streaming threads; none of them may be the caller.
    if (pipeline_) gst_element_set_state(pipeline_, GST_STATE_NULL);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        jitter_buffers_.clear();
        rtx_elements_.clear();
    }
    signaling_ = RTCSignalingStateClosed;
    ice_connection_ = RTCIceConnectionStateClosed;
}

// Any thread: run at Close, or at once when Close already ran.
void Session::OnClose(std::function<void()> fn) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!shut_) {
            on_close_.push_back(std::move(fn));
            return;
        }
    }
    fn();
}

}  // namespace media
}  // namespace libwebrtc
