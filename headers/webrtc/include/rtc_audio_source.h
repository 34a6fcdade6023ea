#ifndef LIBWEBRTC_RTC_AUDIO_SOURCE_H
#define LIBWEBRTC_RTC_AUDIO_SOURCE_H

#include "rtc_types.h"

namespace libwebrtc {

class RTCAudioSource : public RefCountInterface {
  protected:
    ~RTCAudioSource() override {}
};

}  // namespace libwebrtc

#endif
