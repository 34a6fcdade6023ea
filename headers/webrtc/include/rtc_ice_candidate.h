#ifndef LIBWEBRTC_RTC_ICE_CANDIDATE_H
#define LIBWEBRTC_RTC_ICE_CANDIDATE_H

#include "rtc_types.h"

namespace libwebrtc {

class RTCIceCandidate : public RefCountInterface {
  public:
    virtual const char* candidate() const = 0;
    virtual const char* sdp_mid() const = 0;
    virtual int sdp_mline_index() const = 0;

  protected:
    ~RTCIceCandidate() override {}
};

}  // namespace libwebrtc

#endif
