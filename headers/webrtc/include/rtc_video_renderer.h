#ifndef LIBWEBRTC_RTC_VIDEO_RENDERER_H
#define LIBWEBRTC_RTC_VIDEO_RENDERER_H

namespace libwebrtc {

// Receives every frame of a video track it is attached to, on the engine's thread.
template <typename VideoFrameT>
class RTCVideoRenderer {
  public:
    virtual ~RTCVideoRenderer() {}
    virtual void renderFrame(VideoFrameT frame) = 0;
};

}  // namespace libwebrtc

#endif
