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
#include "stamp.h"

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

CapturerImpl::CapturerImpl(std::string source, int width, int height, int fps, bool stamped)
    : source_(std::move(source)),
      width_(width > 0 ? width : kDefaultWidth),
      height_(height > 0 ? height : kDefaultHeight),
      fps_(fps > 0 ? fps : kDefaultFps),
      stamped_(stamped) {
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
    if (stamped_) {
        PadRef in(gst_element_get_static_pad(sink.get(), "sink"));
        gst_pad_add_probe(in.get(), GST_PAD_PROBE_TYPE_BUFFER, &CapturerImpl::Stamp, this, nullptr);
    }
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

// The capture thread: each picture becomes the stamped picture of its frame number,
// with the moment it was made.
GstPadProbeReturn CapturerImpl::Stamp(GstPad* pad, GstPadProbeInfo* info, gpointer self) {
    auto* capturer = static_cast<CapturerImpl*>(self);
    CapsRef caps(gst_pad_get_current_caps(pad));
    GstVideoInfo vinfo;
    if (!caps || !gst_video_info_from_caps(&vinfo, caps.get()) ||
        GST_VIDEO_INFO_FORMAT(&vinfo) != GST_VIDEO_FORMAT_I420)
        return GST_PAD_PROBE_OK;
    GstBuffer* buffer = gst_buffer_make_writable(gst_pad_probe_info_get_buffer(info));
    GST_PAD_PROBE_INFO_DATA(info) = buffer;
    GstVideoFrame frame;
    if (!gst_video_frame_map(&frame, &vinfo, buffer, GST_MAP_WRITE)) return GST_PAD_PROBE_OK;
    zarnrtc::stamp::Picture p;
    p.y = static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
    p.u = static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 1));
    p.v = static_cast<uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 2));
    p.stride_y = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
    p.stride_u = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 1);
    p.stride_v = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 2);
    p.width = GST_VIDEO_FRAME_WIDTH(&frame);
    p.height = GST_VIDEO_FRAME_HEIGHT(&frame);
    zarnrtc::stamp::Stamp stamp;
    stamp.frame = capturer->frames_drawn_++;
    stamp.capture_us = static_cast<uint64_t>(g_get_monotonic_time());
    zarnrtc::stamp::Draw(p, stamp);
    gst_video_frame_unmap(&frame);
    return GST_PAD_PROBE_OK;
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
// patterns (so two devices on one machine can be told apart), default "ball", or
// "stamp", drawn over a black one.
static bool Stamped() {
    return zarnrtc::settings::mediaSettings().testPattern == "stamp";
}

static std::string TestPattern() {
    // One of the names media_settings.h accepts.
    return "videotestsrc is-live=true pattern=" +
           (Stamped() ? std::string("black") : zarnrtc::settings::mediaSettings().testPattern);
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
    bool pattern = source.rfind("v4l2src", 0) != 0;
    scoped_refptr<CapturerImpl> capturer(
        new RefCountedObject<CapturerImpl>(source, width, height, fps, pattern && Stamped()));
    if (!pattern && !capturer->StartCapture()) {
        // A node that refuses to stream (busy, no matching format): show the pattern.
        capturer = new RefCountedObject<CapturerImpl>(TestPattern(), width, height, fps, Stamped());
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
