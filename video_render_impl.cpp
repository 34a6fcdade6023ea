#include "video_render_impl.h"

namespace zarnrtc {

VideoRenderImpl::VideoRenderImpl(VideoSink* videoSink) : m_videoSink(videoSink) {}

VideoRenderImpl::~VideoRenderImpl() {}

void VideoRenderImpl::renderFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) {
    // Deliveries through one adapter never overlap: a sink that is not thread-safe
    // (a frame buffer, a display handle) is entered once at a time. This is the only
    // lock held while the application runs, so a sink may call back into the SDK.
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_videoSink) m_videoSink->OnFrame(frame);
}

}  // namespace zarnrtc
