// Camera and test-pattern capture, shared by every track made over it.
#include <fcntl.h>
#include <gst/app/gstappsink.h>

#include "engine_link.h"
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "gst_util.h"
#include "media_internal.h"
#include "media_settings.h"

namespace libwebrtc {
namespace media {

namespace {

// A V4L2 node that can capture video; fills the card name when asked.
bool IsCaptureDevice(uint32_t index, std::string* card = nullptr) {
    char path[32];
    std::snprintf(path, sizeof path, "/dev/video%u", index);
    int fd = open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    v4l2_capability cap{};
    bool ok = ioctl(fd, VIDIOC_QUERYCAP, &cap) == 0;
    close(fd);
    if (!ok) return false;
    uint32_t caps = (cap.capabilities & V4L2_CAP_DEVICE_CAPS) ? cap.device_caps : cap.capabilities;
    if (!(caps & (V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_CAPTURE_MPLANE))) return false;
    if (card) *card = reinterpret_cast<const char*>(cap.card);
    return true;
}

constexpr uint32_t kMaxVideoNodes = 64;

}  // namespace

CapturerImpl::CapturerImpl(std::string source, int width, int height, int fps)
    : source_(std::move(source)),
      width_(width > 0 ? width : kDefaultWidth),
      height_(height > 0 ? height : kDefaultHeight),
      fps_(fps > 0 ? fps : kDefaultFps) {
    // I420 needs even sizes.
    width_ += width_ & 1;
    height_ += height_ & 1;
}

CapturerImpl::~CapturerImpl() {
    StopCapture();
    DropLatest();
    std::lock_guard<std::mutex> lock(state_mutex_);
    if (pipeline_) {
        GstElement* p = pipeline_;
        pipeline_ = nullptr;
        gst_object_unref(p);
    }
}

bool CapturerImpl::BuildLocked() {
    if (pipeline_) return true;
    ErrorRef err;
    ElementRef pipeline(
        gst_parse_launch(CaptureDescription(source_, width_, height_, fps_).c_str(), Out(err)));
    if (!pipeline || err) {
        GST_ERROR("capture pipeline: %s", err ? err->message : "?");
        return false;
    }
    InstallBusDropHandler(pipeline.get(), "capture");
    ElementRef sink = ByName(pipeline.get(), kOutName);
    g_signal_connect(sink.get(), "new-sample", G_CALLBACK(&CapturerImpl::OnSample), this);
    pipeline_ = pipeline.release();
    return true;
}

bool CapturerImpl::StartCapture() {
    std::lock_guard<std::mutex> lock(state_mutex_);
    if (started_) return true;
    if (!BuildLocked()) return false;
    if (gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        GST_WARNING("capture source '%s' failed to start", source_.c_str());
        gst_element_set_state(pipeline_, GST_STATE_NULL);
        return false;
    }
    started_ = true;
    first_frame_marked_ = false;
    if (zarn_timeline_on()) zarn_timeline_mark(0, "camera: started");
    return true;
}

bool CapturerImpl::CaptureStarted() {
    std::lock_guard<std::mutex> lock(state_mutex_);
    return started_;
}

void CapturerImpl::StopCapture() {
    std::lock_guard<std::mutex> lock(state_mutex_);
    if (!started_) return;
    started_ = false;
    DropLatest();  // the device's buffers go back before it closes
    // Returns once the appsink callback is no longer running.
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    DropLatest();
}

void CapturerImpl::DropLatest() {
    GstSample* latest = nullptr;
    {
        std::lock_guard<std::mutex> lock(subs_mutex_);
        std::swap(latest, latest_);
    }
    if (latest) gst_sample_unref(latest);
}

void CapturerImpl::Subscribe(const std::shared_ptr<VideoFanout>& fanout) {
    fanout->KeepLatest();
    GstSample* latest = nullptr;
    {
        std::lock_guard<std::mutex> lock(subs_mutex_);
        subs_.push_back(fanout);
        // A running camera hands its latest picture on, if it is fresh enough.
        if (latest_ && g_get_monotonic_time() - latest_us_ < 100 * 1000)
            latest = gst_sample_ref(latest_);
    }
    if (latest) fanout->Deliver(latest), gst_sample_unref(latest);
    // The device opens with its first track.
    StartCapture();
}

void CapturerImpl::Unsubscribe(const VideoFanout* fanout) {
    std::lock_guard<std::mutex> lock(subs_mutex_);
    subs_.erase(
        std::remove_if(subs_.begin(), subs_.end(),
                       [&](const std::shared_ptr<VideoFanout>& f) { return f.get() == fanout; }),
        subs_.end());
}

GstFlowReturn CapturerImpl::OnSample(GstElement* sink, gpointer self) {
    auto* capturer = static_cast<CapturerImpl*>(self);
    GstSample* sample = gst_app_sink_pull_sample(GST_APP_SINK(sink));
    if (!sample) return GST_FLOW_EOS;
    if (zarn_timeline_on() && !capturer->first_frame_marked_.exchange(true))
        zarn_timeline_mark(0, "camera: first frame");
    std::vector<std::shared_ptr<VideoFanout>> subs;
    {
        std::lock_guard<std::mutex> lock(capturer->subs_mutex_);
        subs = capturer->subs_;
        GstSample* previous = capturer->latest_;
        capturer->latest_ = gst_sample_ref(sample);
        capturer->latest_us_ = g_get_monotonic_time();
        if (previous) gst_sample_unref(previous);
    }
    for (auto& fanout : subs) fanout->Deliver(sample);
    gst_sample_unref(sample);
    return GST_FLOW_OK;
}

// ---------------------------------------------------------------------------

uint32_t VideoDeviceImpl::NumberOfDevices() {
    uint32_t n = 0;
    for (uint32_t i = 0; i < kMaxVideoNodes; ++i)
        if (IsCaptureDevice(i)) ++n;
    return n;
}

int32_t VideoDeviceImpl::GetDeviceName(uint16_t index, char* name, uint32_t name_len,
                                       char* unique_id, uint32_t unique_id_len) {
    uint32_t seen = 0;
    for (uint32_t i = 0; i < kMaxVideoNodes; ++i) {
        std::string card;
        if (!IsCaptureDevice(i, &card)) continue;
        if (seen++ != index) continue;
        if (name && name_len) g_strlcpy(name, card.c_str(), name_len);
        if (unique_id && unique_id_len) {
            std::snprintf(unique_id, unique_id_len, "/dev/video%u", i);
        }
        return 0;
    }
    return -1;
}

// The stand-in camera's picture: ZARNRTC_TEST_PATTERN names one of videotestsrc's
// patterns (so two devices on one machine can be told apart), default "ball".
static std::string TestPattern() {
    // One of the names media_settings.h accepts.
    return "videotestsrc is-live=true pattern=" + zarnrtc::settings::mediaSettings().testPattern;
}

scoped_refptr<RTCVideoCapturer> VideoDeviceImpl::Create(const char* name, uint32_t index, int width,
                                                        int height, int fps) {
    std::string source;
    if (IsCaptureDevice(index)) {
        source = "v4l2src device=/dev/video" + std::to_string(index);
        GST_INFO("camera '%s': /dev/video%u", name ? name : "", index);
    } else {
        source = TestPattern();
        GST_INFO("camera '%s': no /dev/video%u, using a test pattern", name ? name : "", index);
    }
    scoped_refptr<CapturerImpl> capturer(
        new RefCountedObject<CapturerImpl>(source, width, height, fps));
    if (source.rfind("v4l2src", 0) == 0 && !capturer->StartCapture()) {
        // A node that refuses to stream (busy, no matching format): show the pattern.
        capturer = new RefCountedObject<CapturerImpl>(TestPattern(), width, height, fps);
    }
    return capturer;
}

scoped_refptr<RTCVideoCapturer> VideoDeviceImpl::CreateScreenCapture(int fps, uint32_t) {
    return new RefCountedObject<CapturerImpl>("videotestsrc is-live=true pattern=smpte",
                                              kScreenWidth, kScreenHeight, fps);
}

// ---------------------------------------------------------------------------

int16_t AudioDeviceImpl::PlayoutDevices() {
    return AudioOutputAvailable() ? 1 : 0;
}
int16_t AudioDeviceImpl::RecordingDevices() {
    return 1;
}
int32_t AudioDeviceImpl::SetPlayoutDevice(uint16_t index) {
    return index == 0 ? 0 : -1;
}
int32_t AudioDeviceImpl::SetRecordingDevice(uint16_t index) {
    return index == 0 ? 0 : -1;
}

}  // namespace media
}  // namespace libwebrtc
