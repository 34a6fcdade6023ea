// Value objects, tracks, streams and the frame fan-out.
#include <gst/app/gstappsrc.h>

#include <algorithm>
#include <cstring>

#include "gst_util.h"
#include "media_internal.h"

namespace libwebrtc {
namespace media {

void MediaConstraintsImpl::AddMandatoryConstraint(const char* key, const char* value) {
    if (!key) return;
    std::lock_guard<std::mutex> lock(mutex_);
    mandatory_[key] = Str(value);
}

void MediaConstraintsImpl::AddOptionalConstraint(const char* key, const char* value) {
    if (!key) return;
    std::lock_guard<std::mutex> lock(mutex_);
    optional_[key] = Str(value);
}

// ---------------------------------------------------------------------------

scoped_refptr<RTCVideoFrame> VideoFrameImpl::FromSample(GstSample* sample) {
    GstCaps* caps = gst_sample_get_caps(sample);
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    GstVideoInfo info;
    if (!caps || !buffer || !gst_video_info_from_caps(&info, caps) ||
        GST_VIDEO_INFO_FORMAT(&info) != GST_VIDEO_FORMAT_I420) {
        return nullptr;
    }
    auto* frame = new GstVideoFrame;
    // The mapped frame holds its own reference to the buffer.
    if (!gst_video_frame_map(frame, &info, buffer, GST_MAP_READ)) {
        delete frame;
        return nullptr;
    }
    scoped_refptr<VideoFrameImpl> result(new RefCountedObject<VideoFrameImpl>());
    result->frame_ = frame;
    GstClockTime pts = GST_BUFFER_PTS(buffer);
    result->timestamp_us_ =
        GST_CLOCK_TIME_IS_VALID(pts) ? static_cast<int64_t>(pts / 1000) : g_get_monotonic_time();
    return result;
}

VideoFrameImpl::~VideoFrameImpl() {
    if (frame_) {
        gst_video_frame_unmap(frame_);
        delete frame_;
    }
}

int VideoFrameImpl::width() const {
    return GST_VIDEO_FRAME_WIDTH(frame_);
}
int VideoFrameImpl::height() const {
    return GST_VIDEO_FRAME_HEIGHT(frame_);
}
const uint8_t* VideoFrameImpl::DataY() const {
    return static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(frame_, 0));
}
const uint8_t* VideoFrameImpl::DataU() const {
    return static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(frame_, 1));
}
const uint8_t* VideoFrameImpl::DataV() const {
    return static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(frame_, 2));
}
int VideoFrameImpl::StrideY() const {
    return GST_VIDEO_FRAME_PLANE_STRIDE(frame_, 0);
}
int VideoFrameImpl::StrideU() const {
    return GST_VIDEO_FRAME_PLANE_STRIDE(frame_, 1);
}
int VideoFrameImpl::StrideV() const {
    return GST_VIDEO_FRAME_PLANE_STRIDE(frame_, 2);
}

// ---------------------------------------------------------------------------

VideoFanout::~VideoFanout() {
    for (GstElement* src : srcs_) gst_object_unref(src);
    if (latest_) gst_sample_unref(latest_);
}

namespace {

// Deliveries running on this thread: a renderer added from inside one is not handed
// the latest picture there (the caller may hold a renderer's own lock).
thread_local int t_delivering = 0;

void Render(VideoRenderer* renderer, const scoped_refptr<RTCVideoFrame>& frame) {
    ++t_delivering;
    try {
        renderer->renderFrame(frame);
    } catch (...) {
        GST_WARNING("renderer threw; frame dropped");
    }
    --t_delivering;
}

}  // namespace

void VideoFanout::AddRenderer(VideoRenderer* renderer) {
    if (!renderer) return;
    std::lock_guard<std::recursive_mutex> lock(render_mutex_);
    renderers_.push_back(renderer);
    // A remote track is announced with its first packet, and its first picture is
    // often decoded before the application has attached its renderer: hand that
    // one over now rather than a frame period later.
    if (t_delivering || !enabled_) return;
    GstSample* latest = nullptr;
    {
        std::lock_guard<std::mutex> l(src_mutex_);
        if (latest_ && g_get_monotonic_time() - latest_us_ < kFreshUs)
            latest = gst_sample_ref(latest_);
    }
    if (!latest) return;
    scoped_refptr<RTCVideoFrame> frame = VideoFrameImpl::FromSample(latest);
    gst_sample_unref(latest);
    if (frame) Render(renderer, frame);
}

void VideoFanout::RemoveRenderer(VideoRenderer* renderer) {
    std::lock_guard<std::recursive_mutex> lock(render_mutex_);
    auto it = std::find(renderers_.begin(), renderers_.end(), renderer);
    if (it != renderers_.end()) renderers_.erase(it);
}

namespace {

void PushCopy(GstElement* src, GstSample* sample) {
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    GstCaps* caps = gst_sample_get_caps(sample);
    CapsRef current(gst_app_src_get_caps(GST_APP_SRC(src)));
    if (!current || !gst_caps_is_equal(current.get(), caps))
        gst_app_src_set_caps(GST_APP_SRC(src), caps);
    // The call pipeline stamps its own running time (do-timestamp).
    GstBuffer* copy = gst_buffer_copy(buffer);
    GST_BUFFER_PTS(copy) = GST_CLOCK_TIME_NONE;
    GST_BUFFER_DTS(copy) = GST_CLOCK_TIME_NONE;
    GST_BUFFER_DURATION(copy) = GST_CLOCK_TIME_NONE;
    gst_app_src_push_buffer(GST_APP_SRC(src), copy);
}

}  // namespace

void VideoFanout::AddAppSrc(GstElement* appsrc) {
    std::lock_guard<std::mutex> lock(src_mutex_);
    srcs_.push_back(GST_ELEMENT(gst_object_ref(appsrc)));
    if (latest_ && enabled_ && g_get_monotonic_time() - latest_us_ < kFreshUs)
        PushCopy(appsrc, latest_);
}

void VideoFanout::RemoveAppSrc(GstElement* appsrc) {
    GstElement* found = nullptr;
    {
        std::lock_guard<std::mutex> lock(src_mutex_);
        auto it = std::find(srcs_.begin(), srcs_.end(), appsrc);
        if (it == srcs_.end()) return;
        found = *it;
        srcs_.erase(it);
    }
    gst_object_unref(found);
}

void VideoFanout::Deliver(GstSample* sample) {
    if (!enabled_) return;
    if (!gst_sample_get_buffer(sample) || !gst_sample_get_caps(sample)) return;
    {
        std::lock_guard<std::mutex> lock(src_mutex_);
        for (GstElement* src : srcs_) PushCopy(src, sample);
    }
    // The latest picture changes under render_mutex_ too, so a renderer being added
    // gets each picture once: from AddRenderer or from here.
    std::lock_guard<std::recursive_mutex> lock(render_mutex_);
    if (keep_latest_) {
        std::lock_guard<std::mutex> l(src_mutex_);
        GstSample* previous = latest_;
        latest_ = gst_sample_ref(sample);
        latest_us_ = g_get_monotonic_time();
        if (previous) gst_sample_unref(previous);
    }
    if (renderers_.empty()) return;
    scoped_refptr<RTCVideoFrame> frame = VideoFrameImpl::FromSample(sample);
    if (!frame) return;
    std::vector<VideoRenderer*> snapshot = renderers_;
    for (VideoRenderer* renderer : snapshot) {
        // A renderer may have removed another one (or itself) meanwhile.
        if (std::find(renderers_.begin(), renderers_.end(), renderer) == renderers_.end()) continue;
        Render(renderer, frame);
    }
}

// ---------------------------------------------------------------------------

AudioControl::~AudioControl() {
    for (GstElement* v : volumes_) gst_object_unref(v);
}

void AudioControl::ApplyLocked(GstElement* volume) {
    g_object_set(volume, "volume", volume_, "mute", !enabled_, nullptr);
}

void AudioControl::Attach(GstElement* volume) {
    std::lock_guard<std::mutex> lock(mutex_);
    volumes_.push_back(GST_ELEMENT(gst_object_ref(volume)));
    ApplyLocked(volume);
}

void AudioControl::Detach(GstElement* volume) {
    GstElement* found = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = std::find(volumes_.begin(), volumes_.end(), volume);
        if (it == volumes_.end()) return;
        found = *it;
        volumes_.erase(it);
    }
    gst_object_unref(found);
}

void AudioControl::SetVolume(double volume) {
    std::lock_guard<std::mutex> lock(mutex_);
    volume_ = std::clamp(volume, 0.0, 10.0);
    for (GstElement* v : volumes_) ApplyLocked(v);
}

void AudioControl::SetEnabled(bool enabled) {
    std::lock_guard<std::mutex> lock(mutex_);
    enabled_ = enabled;
    for (GstElement* v : volumes_) ApplyLocked(v);
}

bool AudioControl::enabled() {
    std::lock_guard<std::mutex> lock(mutex_);
    return enabled_;
}

// ---------------------------------------------------------------------------

bool AudioTrackImpl::set_enabled(bool enable) {
    control_->SetEnabled(enable);
    return true;
}

void AudioTrackImpl::SetVolume(double volume) {
    control_->SetVolume(volume);
}

VideoTrackImpl::VideoTrackImpl(std::string id, scoped_refptr<VideoSourceImpl> source)
    : id_(std::move(id)), source_(source), fanout_(std::make_shared<VideoFanout>()) {
    if (source_ && source_->capturer()) source_->capturer()->Subscribe(fanout_);
}

VideoTrackImpl::~VideoTrackImpl() {
    if (source_ && source_->capturer()) source_->capturer()->Unsubscribe(fanout_.get());
}

bool VideoTrackImpl::set_enabled(bool enable) {
    fanout_->SetEnabled(enable);
    return true;
}

void VideoTrackImpl::AddRenderer(VideoRenderer* renderer) {
    fanout_->AddRenderer(renderer);
}
void VideoTrackImpl::RemoveRenderer(VideoRenderer* renderer) {
    fanout_->RemoveRenderer(renderer);
}

// ---------------------------------------------------------------------------

template <typename T>
static bool AddUnique(std::vector<scoped_refptr<T>>& v, const scoped_refptr<T>& t) {
    if (!t || std::find(v.begin(), v.end(), t) != v.end()) return false;
    v.push_back(t);
    return true;
}

template <typename T>
static bool RemoveOne(std::vector<scoped_refptr<T>>& v, const scoped_refptr<T>& t) {
    auto it = std::find(v.begin(), v.end(), t);
    if (!t || it == v.end()) return false;
    v.erase(it);
    return true;
}

template <typename T>
static scoped_refptr<T> FindById(std::vector<scoped_refptr<T>>& v, const char* id) {
    if (!id) return nullptr;
    for (auto& t : v)
        if (std::strcmp(t->id(), id) == 0) return t;
    return nullptr;
}

bool MediaStreamImpl::AddTrack(scoped_refptr<RTCAudioTrack> track) {
    std::lock_guard<std::mutex> lock(mutex_);
    return AddUnique(audio_, track);
}
bool MediaStreamImpl::AddTrack(scoped_refptr<RTCVideoTrack> track) {
    std::lock_guard<std::mutex> lock(mutex_);
    return AddUnique(video_, track);
}
bool MediaStreamImpl::RemoveTrack(scoped_refptr<RTCAudioTrack> track) {
    std::lock_guard<std::mutex> lock(mutex_);
    return RemoveOne(audio_, track);
}
bool MediaStreamImpl::RemoveTrack(scoped_refptr<RTCVideoTrack> track) {
    std::lock_guard<std::mutex> lock(mutex_);
    return RemoveOne(video_, track);
}
scoped_refptr<RTCAudioTrack> MediaStreamImpl::FindAudioTrack(const char* track_id) {
    std::lock_guard<std::mutex> lock(mutex_);
    return FindById(audio_, track_id);
}
scoped_refptr<RTCVideoTrack> MediaStreamImpl::FindVideoTrack(const char* track_id) {
    std::lock_guard<std::mutex> lock(mutex_);
    return FindById(video_, track_id);
}
std::vector<scoped_refptr<RTCAudioTrack>> MediaStreamImpl::audio_tracks() {
    std::lock_guard<std::mutex> lock(mutex_);
    return audio_;
}
std::vector<scoped_refptr<RTCVideoTrack>> MediaStreamImpl::video_tracks() {
    std::lock_guard<std::mutex> lock(mutex_);
    return video_;
}

}  // namespace media
}  // namespace libwebrtc
