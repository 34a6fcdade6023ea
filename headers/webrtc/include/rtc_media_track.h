#ifndef LIBWEBRTC_RTC_MEDIA_TRACK_H
#define LIBWEBRTC_RTC_MEDIA_TRACK_H

#include "rtc_types.h"

namespace libwebrtc {

class RTCMediaTrack : public RefCountInterface {
  public:
    // "audio" or "video"; the text lives as long as the track.
    virtual const char* kind() const = 0;
    virtual const char* id() const = 0;
    virtual bool enabled() const = 0;
    virtual bool set_enabled(bool enable) = 0;

  protected:
    ~RTCMediaTrack() override {}
};

}  // namespace libwebrtc

#endif
