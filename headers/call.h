#ifndef ZARNRTC_CALL_H
#define ZARNRTC_CALL_H

#include <cstdint>

#include "callparams.h"
#include "videosink.h"
#include "zarnrtcsdkglobal.h"

namespace zarnrtc {

enum DtmfMethod : int32_t { kDtmfRFC2833 = 0, kDtmfInfo = 1 };

enum Direction : int32_t { kIncoming = 0, kOutgoing = 1 };

// The SIP engine's call-state numbers, passed through unchanged.
enum CallState : int32_t {
    kNewCall = 0,
    kCancel = 1,
    kFailed = 2,
    kRejected = 3,
    kEarlyMedia = 4,
    kRinging = 5,
    kAnswered = 6,
    kHangup = 7,
    kPausing = 8,
    kPaused = 9,
    kResuming = 10,
    kResumed = 11,
    kUpdating = 12,
    kUpdated = 13
};

// One SIP call. The declaration order is the virtual-table layout and part of the ABI.
class ZARNRTC_API Call {
  public:
    virtual void makeCall(const char* calleeUri, CallParams callParams) = 0;
    virtual void earlyAccept(bool audio, bool video) = 0;
    virtual void makeAnswer() = 0;
    virtual void makeAnswer(CallParams callParams) = 0;
    virtual void reject(int code, const char* reason) = 0;
    virtual int hangup() = 0;
    virtual int updateCall(bool video) = 0;
    virtual int hold() = 0;
    virtual int unHold() = 0;
    virtual int sendDtmf(DtmfMethod method, const char* digits, bool playTone) = 0;
    virtual int transfer(const char* target) = 0;
    virtual void onCallOffer(const char* offerSdp) = 0;
    virtual void onCallAnswer(const char* answerSdp) = 0;
    virtual void onMediaStateChange(const char* sdp, bool audio, bool video) = 0;
    virtual void setVideoMaxBitrate(int bitrate) = 0;
    virtual void closeWebRTC() = 0;
    virtual void closeSip() = 0;
    virtual void enableStatsEvents(bool enable, int intervalMs) = 0;
    virtual void setAudioEnabled(bool enable) = 0;
    virtual void setVideoEnabled(bool enable) = 0;
    virtual bool isActive() = 0;
    virtual const char* getWebtcErrMessage() = 0;
    virtual void startVideoSending() = 0;
    virtual void startVideoReceiving() = 0;
    virtual void stopVideoSending() = 0;
    virtual void stopVideoReceiving() = 0;
    virtual void startAudioSending() = 0;
    virtual void stopAudioSending() = 0;
    virtual void startAudioReceiving() = 0;
    virtual void stopAudioReceiving() = 0;
    virtual void switchCamera() = 0;
    virtual void changeCaptureFormat(int width, int height, int fps) = 0;
    virtual void setLocalVideoRender(VideoSink* videoSink) = 0;
    virtual void setRemoteVideoRender(VideoSink* videoSink) = 0;
    virtual void updateCallState(int state, int reason) = 0;
    virtual void updatePeerDeviceType(const char* deviceType) = 0;
    virtual void onCallReceiveReinvite(const char* sdp) = 0;
    virtual void onEarlyMediaSdp(const char* earlyMediaSdp) = 0;
    virtual void photoShot(bool local, const char* fileName) = 0;
    virtual void recordMedia(const char* fileName, bool audio, bool video) = 0;
    virtual void stopRecordMedia() = 0;
    virtual void record(const char* audioFile, const char* videoFile) = 0;
    virtual void localsnap(const char* fileName) = 0;
    virtual void remotesnap(const char* fileName) = 0;
    virtual void setSelfHangup(bool selfHangup) = 0;
    virtual bool selfHangup() = 0;
    virtual void openflowStream() = 0;
    virtual void sendStreamPacket(bool video, uint8_t payloadType, uint32_t timeStamp,
                                  const uint8_t* packet, int len) = 0;
    virtual void sendRtcp(bool pli) = 0;
    virtual void audioPlay(const char* fileName) = 0;
    virtual int getCallId() = 0;
    virtual Direction direction() = 0;
    virtual CallState call_state() = 0;
    virtual bool support_video() = 0;
    virtual bool support_data() = 0;
    virtual ~Call() {}
};

}  // namespace zarnrtc

#endif
