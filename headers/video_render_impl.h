#ifndef ZARNRTC_VIDEO_RENDER_IMPL_H
#define ZARNRTC_VIDEO_RENDER_IMPL_H

#include <mutex>

#include "video_render.h"
#include "videosink.h"

namespace zarnrtc {

// Hands each frame of a track to one application sink, one delivery at a time.
class VideoRenderImpl : public VideoRender {
  public:
    explicit VideoRenderImpl(VideoSink* videoSink);
    virtual ~VideoRenderImpl();
    void renderFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) override;

  private:
    VideoSink* m_videoSink;
    std::mutex m_mutex;  // held while the sink runs
};

}  // namespace zarnrtc

#endif
