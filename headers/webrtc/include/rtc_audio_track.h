#ifndef LIBWEBRTC_RTC_AUDIO_TRACK_H
#define LIBWEBRTC_RTC_AUDIO_TRACK_H

#include "rtc_media_track.h"

namespace libwebrtc {

class RTCAudioTrack : public RTCMediaTrack {
  public:
    // 0.0 silent .. 10.0
    virtual void SetVolume(double volume) = 0;

  protected:
    ~RTCAudioTrack() override {}
};

}  // namespace libwebrtc

#endif
