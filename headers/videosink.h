#ifndef ZARNRTC_VIDEOSINK_H
#define ZARNRTC_VIDEOSINK_H

#include "rtc_video_frame.h"
#include "zarnrtcsdkglobal.h"

namespace zarnrtc {

// Implemented by the application. OnFrame runs on the media engine's thread; one
// sink given to several calls or setters can be entered from two threads at once.
class VideoSink {
  public:
    virtual ~VideoSink() {}
    virtual void OnFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) = 0;
};

}  // namespace zarnrtc

#endif
