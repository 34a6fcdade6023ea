#ifndef LIBWEBRTC_RTC_AUDIO_DEVICE_H
#define LIBWEBRTC_RTC_AUDIO_DEVICE_H

#include "rtc_types.h"

namespace libwebrtc {

class RTCAudioDevice : public RefCountInterface {
  public:
    virtual int16_t PlayoutDevices() = 0;
    virtual int16_t RecordingDevices() = 0;
    virtual int32_t SetPlayoutDevice(uint16_t index) = 0;
    virtual int32_t SetRecordingDevice(uint16_t index) = 0;

  protected:
    ~RTCAudioDevice() override {}
};

}  // namespace libwebrtc

#endif
