#ifndef LIBWEBRTC_RTC_SESSION_DESCRIPTION_H
#define LIBWEBRTC_RTC_SESSION_DESCRIPTION_H

#include "rtc_types.h"

namespace libwebrtc {

class RTCSessionDescription : public RefCountInterface {
  public:
    // Full SDP text; never null.
    virtual const char* sdp() const = 0;
    // "offer", "pranswer", "answer".
    virtual const char* type() const = 0;

  protected:
    ~RTCSessionDescription() override {}
};

}  // namespace libwebrtc

#endif
