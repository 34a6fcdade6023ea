#ifndef ZARNRTC_ZARNRTCIMPL_H
#define ZARNRTC_ZARNRTCIMPL_H

#include <map>
#include <string>

#include "callStateObserver.h"
#include "callstreamobserver.h"
#include "registrationStateObserver.h"
#include "zarnrtc.h"

namespace zarnrtc {

class SipEngineManager;

class ZARNRTC_API ZarnRtcImpl : public ZarnRtc,
                                public RegistrationStateObserver,
                                public CallStateObserver,
                                public CallStreamObserver {
  public:
    ZarnRtcImpl();

    int setRecordingDevice(const char* guid) override;
    int setPlayoutDevice(const char* guid) override;
    int setVideoDevice(const char* guid) override;
    int registerAccount(const char* serverIp, const char* username, const char* password,
                        const char* displayname) override;
    int call(const char* calleeUri) override;
    void callForward(std::list<const char*> callForwardUsers, const char* localDisplayName,
                     bool isVideo, bool hwAcceleration, int width, int height, int fps, int bitrate,
                     const char* deviceType) override;
    int earlyAnswer(int callId) override;
    int answer(int callId) override;
    int hangup(int callId) override;
    void setZarnRtcEvent(IRtcEngineEventHandler* iRtcEngineEventHandler) override;
    void flowStream() override;
    void sendVideoPacket(const uint8_t* packet, int len, uint8_t payloadType,
                         uint32_t timeStamp) override;

    virtual ~ZarnRtcImpl();

    void onRegistrationState(int accId, int code, const char* reason) override;
    void onMessage(const char* message) override;
    void onIncomingCall(int callId, const char* callerDisplayName, const char* callerUri) override;
    void onCallStateChange(int callId, int stateCode, int reasonCode) override;
    void onLocalVideoReady(int callId) override;
    void onRemoteVideoReady(int callId) override;
    void onUpdatedByLocal(int callId, bool video) override;
    void onUpdatedByRemote(int callId, bool video) override;

    // Not part of ZarnRtc: reachable by code that knows this class.
    void setupLocalVideo(int callId, VideoSink* videoSink);
    void setupRemoteVideo(int callId, VideoSink* videoSink);
    void audioPlay(const char* fileName);
    int callF(const char* callForwardUser, bool initVideo);

  private:
    ZarnRtcImpl(const ZarnRtcImpl&) = delete;
    ZarnRtcImpl& operator=(const ZarnRtcImpl&) = delete;
    IRtcEngineEventHandler* handler();  // read under the facade's lock

    SipEngineManager* mSipEngineManager;
    IRtcEngineEventHandler* mIRtcEngineEventHandler;
    int current_callId;
    bool isCallForward;
    std::string localDeviceType;
    std::map<std::string, int> callForwardIdMap;
};

}  // namespace zarnrtc

#endif
