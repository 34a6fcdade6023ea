#ifndef LIBWEBRTC_RTC_MEDIA_STREAM_H
#define LIBWEBRTC_RTC_MEDIA_STREAM_H

#include "rtc_audio_track.h"
#include "rtc_video_track.h"

namespace libwebrtc {

class RTCMediaStream : public RefCountInterface {
  public:
    virtual bool AddTrack(scoped_refptr<RTCAudioTrack> track) = 0;
    virtual bool AddTrack(scoped_refptr<RTCVideoTrack> track) = 0;
    virtual bool RemoveTrack(scoped_refptr<RTCAudioTrack> track) = 0;
    virtual bool RemoveTrack(scoped_refptr<RTCVideoTrack> track) = 0;
    virtual scoped_refptr<RTCAudioTrack> FindAudioTrack(const char* track_id) = 0;
    virtual scoped_refptr<RTCVideoTrack> FindVideoTrack(const char* track_id) = 0;
    virtual const char* label() const = 0;
    virtual const char* id() const = 0;

  protected:
    ~RTCMediaStream() override {}
};

}  // namespace libwebrtc

#endif
