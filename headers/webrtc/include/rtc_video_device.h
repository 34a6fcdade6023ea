#ifndef LIBWEBRTC_RTC_VIDEO_DEVICE_H
#define LIBWEBRTC_RTC_VIDEO_DEVICE_H

#include "rtc_types.h"

namespace libwebrtc {

class RTCVideoCapturer : public RefCountInterface {
  public:
    virtual bool StartCapture() = 0;
    virtual bool CaptureStarted() = 0;
    virtual void StopCapture() = 0;

  protected:
    ~RTCVideoCapturer() override {}
};

class RTCVideoDevice : public RefCountInterface {
  public:
    virtual uint32_t NumberOfDevices() = 0;
    virtual int32_t GetDeviceName(uint16_t index, char* deviceNameUTF8, uint32_t deviceNameLength,
                                  char* deviceUniqueIdUTF8, uint32_t deviceUniqueIdUTF8Length) = 0;
    // A camera capturer, or null when the device cannot be opened.
    virtual scoped_refptr<RTCVideoCapturer> Create(const char* name, uint32_t index, int width,
                                                   int height, int fps) = 0;
    virtual scoped_refptr<RTCVideoCapturer> CreateScreenCapture(int fps, uint32_t screenIndex) = 0;

  protected:
    ~RTCVideoDevice() override {}
};

}  // namespace libwebrtc

#endif
