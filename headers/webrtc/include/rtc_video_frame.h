#ifndef LIBWEBRTC_RTC_VIDEO_FRAME_H
#define LIBWEBRTC_RTC_VIDEO_FRAME_H

#include "rtc_types.h"

namespace libwebrtc {

// One decoded or captured picture in I420: a full-size Y plane and U and V planes of
// half width and half height (rounded up).
class RTCVideoFrame : public RefCountInterface {
  public:
    virtual int width() const = 0;
    virtual int height() const = 0;
    virtual const uint8_t* DataY() const = 0;
    virtual const uint8_t* DataU() const = 0;
    virtual const uint8_t* DataV() const = 0;
    virtual int StrideY() const = 0;
    virtual int StrideU() const = 0;
    virtual int StrideV() const = 0;
    // Capture or render time in microseconds.
    virtual int64_t timestamp_us() const = 0;

  protected:
    ~RTCVideoFrame() override {}
};

}  // namespace libwebrtc

#endif
