#ifndef LIBWEBRTC_RTC_MEDIA_CONSTRAINTS_H
#define LIBWEBRTC_RTC_MEDIA_CONSTRAINTS_H

#include "rtc_types.h"

namespace libwebrtc {

class RTCMediaConstraints : public RefCountInterface {
  public:
    LIB_WEBRTC_API static scoped_refptr<RTCMediaConstraints> Create();

    virtual void AddMandatoryConstraint(const char* key, const char* value) = 0;
    virtual void AddOptionalConstraint(const char* key, const char* value) = 0;

  protected:
    ~RTCMediaConstraints() override {}
};

}  // namespace libwebrtc

#endif
