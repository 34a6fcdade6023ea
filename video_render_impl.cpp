#include "video_render_impl.h"

namespace zarnrtc {

VideoRenderImpl::VideoRenderImpl(VideoSink* videoSink) : m_videoSink(videoSink) {}

VideoRenderImpl::~VideoRenderImpl() {}

void VideoRenderImpl::renderFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_videoSink) m_videoSink->OnFrame(frame);
}

}  // namespace zarnrtc
