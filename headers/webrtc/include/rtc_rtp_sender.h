#ifndef LIBWEBRTC_RTC_RTP_SENDER_H
#define LIBWEBRTC_RTC_RTP_SENDER_H

#include "rtc_media_track.h"

namespace libwebrtc {

class RTCRtpSender : public RefCountInterface {
  public:
    virtual scoped_refptr<RTCMediaTrack> track() const = 0;
    virtual const char* id() const = 0;

  protected:
    ~RTCRtpSender() override {}
};

}  // namespace libwebrtc

#endif
