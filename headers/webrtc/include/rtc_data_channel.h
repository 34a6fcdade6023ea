#ifndef LIBWEBRTC_RTC_DATA_CHANNEL_H
#define LIBWEBRTC_RTC_DATA_CHANNEL_H

#include "rtc_types.h"

namespace libwebrtc {

class RTCDataChannel : public RefCountInterface {
  public:
    virtual void Send(const uint8_t* data, uint32_t size, bool binary) = 0;
    virtual void Close() = 0;

  protected:
    ~RTCDataChannel() override {}
};

}  // namespace libwebrtc

#endif
