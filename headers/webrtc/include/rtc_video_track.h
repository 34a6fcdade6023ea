#ifndef LIBWEBRTC_RTC_VIDEO_TRACK_H
#define LIBWEBRTC_RTC_VIDEO_TRACK_H

#include "rtc_media_track.h"
#include "rtc_video_frame.h"
#include "rtc_video_renderer.h"

namespace libwebrtc {

class RTCVideoTrack : public RTCMediaTrack {
  public:
    // The renderer is not owned. After RemoveRenderer returns it is never called again.
    virtual void AddRenderer(RTCVideoRenderer<scoped_refptr<RTCVideoFrame>>* renderer) = 0;
    virtual void RemoveRenderer(RTCVideoRenderer<scoped_refptr<RTCVideoFrame>>* renderer) = 0;

  protected:
    ~RTCVideoTrack() override {}
};

}  // namespace libwebrtc

#endif
