#include "video_render_impl.h"

namespace zarnrtc {

VideoRenderImpl::VideoRenderImpl(VideoSink* videoSink) : m_videoSink(videoSink) {}

VideoRenderImpl::~VideoRenderImpl() {}

void VideoRenderImpl::renderFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) {
    // No lock while the application's sink runs: the sink is fixed for the adapter's
    // life, and a sink shared by two calls is entered from two threads by design.
    if (m_videoSink) m_videoSink->OnFrame(frame);
}

}  // namespace zarnrtc
