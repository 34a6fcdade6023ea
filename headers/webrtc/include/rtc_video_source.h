#ifndef LIBWEBRTC_RTC_VIDEO_SOURCE_H
#define LIBWEBRTC_RTC_VIDEO_SOURCE_H

#include "rtc_types.h"

namespace libwebrtc {

class RTCVideoSource : public RefCountInterface {
  protected:
    ~RTCVideoSource() override {}
};

}  // namespace libwebrtc

#endif
