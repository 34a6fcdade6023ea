#ifndef LIBWEBRTC_RTC_RTP_RECEIVER_H
#define LIBWEBRTC_RTC_RTP_RECEIVER_H

#include "rtc_media_track.h"

namespace libwebrtc {

class RTCRtpReceiver : public RefCountInterface {
  public:
    virtual scoped_refptr<RTCMediaTrack> track() const = 0;
    virtual const char* id() const = 0;
    // Engine extension: decode the named audio file and play it into the call.
    virtual void audioPlay(const char* fileName) = 0;

  protected:
    ~RTCRtpReceiver() override {}
};

}  // namespace libwebrtc

#endif
