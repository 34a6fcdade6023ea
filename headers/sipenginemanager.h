#ifndef ZARNRTC_SIPENGINEMANAGER_H
#define ZARNRTC_SIPENGINEMANAGER_H

#include <list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "CallStateDelegate.h"
#include "RegistrationStateDelegate.h"
#include "SipEngine.h"
#include "account.h"
#include "call.h"
#include "callStateObserver.h"
#include "callparams.h"
#include "callstreamobserver.h"
#include "libwebrtc.h"
#include "registrationStateObserver.h"
#include "videosink.h"

namespace zarnrtc {

// Owns the SIP engine and the media factory, keeps the registry of live calls and
// turns engine callbacks into observer reports.
class SipEngineManager : public RegistrationStateDelegate, public CallStateDelegate {
  public:
    SipEngineManager();

    // RegistrationStateDelegate
    void OnRegistrationProgress(int accId) override;
    void OnRegistrationSuccess(int accId) override;
    void OnRegistrationClear(int accId) override;
    void OnRegistrationFailed(int accId, int code, const char* reason) override;
    void onMessage(const char* fromUri, const char* message) override;

    virtual ~SipEngineManager();

    // CallStateDelegate
    void OnIncomingCall(int accId, int callId, const char* fromDisplayName, const char* fromUri,
                        const char* toUri) override;
    void OnCallStateChange(int callId, int state, int reason, const char* text) override;
    void OnCallOffer(int callId, const char* sdp, bool hasAudio, bool hasVideo) override;
    void OnCallAnswer(int callId, const char* sdp, bool hasAudio, bool hasVideo) override;
    void OnDtmfEvent(int callId, int digit, int durationMs, bool isInfo) override;
    void OnInfoEvent(int callId, const char* body) override;
    void OnMediaStateChange(int callId, const char* sdp, bool hasAudio, bool hasVideo) override;
    void OnEarlyMediaSdp(int callId, const char* sdp) override;

    // Core and registry
    void setRegistrationObserver(RegistrationStateObserver* observer);
    void setCallStateObserver(CallStateObserver* observer);
    void setCallStreamObserver(CallStreamObserver* observer);
    void registerRegistrationDelegate(RegistrationStateDelegate* delegate);
    void registerCallStateDelegate(CallStateDelegate* callStateDelegate);
    void registerCall(Call* call);
    void unregisterCall(Call* call);

    // Account
    int registerAccount(const char* serverIp, const char* username, const char* password,
                        const char* displayname);
    void unregisterSipAccount(int accId);

    // Call control. call() returns the new call, which the engine's end may free at
    // any time on its own thread; placeCall() returns only its id (or -1).
    Call* call(const char* calleeUri, CallParams callParams);
    int placeCall(const char* calleeUri, CallParams callParams);
    void earlyAnswer(int callId, CallParams callParams);
    void answer(int callId, CallParams callParams);
    void nativeCall(int callId, const char* calleeUri, const char* displayName, const char* sdp,
                    int mediaResolution);
    void nativeAnswer(int callId, const char* answersdp, bool sendAudio, bool sendVideo,
                      int mediaResolution);
    void reject(int callId, int code);
    void hangup(int callId, const char* reason);
    void reinvite(int callId, const char* sdp);

    // Media factory and local tracks
    libwebrtc::scoped_refptr<libwebrtc::RTCPeerConnectionFactory> getRtcPeerConnectionFactory();
    libwebrtc::scoped_refptr<libwebrtc::RTCPeerConnection> createRtcPeerConnection(
        const libwebrtc::RTCConfiguration& configuration,
        libwebrtc::scoped_refptr<libwebrtc::RTCMediaConstraints> constraints);
    libwebrtc::scoped_refptr<libwebrtc::RTCMediaStream> createStream(const char* stream_id);
    libwebrtc::scoped_refptr<libwebrtc::RTCAudioTrack> createAudioTrack(
        const char* track_id, uint16_t recordingDeviceIndex, uint16_t playoutDeviceIndex);
    libwebrtc::scoped_refptr<libwebrtc::RTCVideoTrack> createVideoTrack(
        const char* track_id, libwebrtc::scoped_refptr<libwebrtc::RTCMediaConstraints> constraints,
        bool screenShare, const char* deviceName, uint32_t vdideoDeviceIndex, int videoWidth,
        int videoHeight, int videoFps);
    libwebrtc::scoped_refptr<libwebrtc::RTCAudioTrack> getAudioTrack(uint16_t index);
    libwebrtc::scoped_refptr<libwebrtc::RTCVideoTrack> getVideoTrack(bool screenShare,
                                                                     uint32_t index,
                                                                     const char* strNameUTF8,
                                                                     int videoWidth,
                                                                     int videoHeight, int videoFps);
    void stoplocalVideoSource();
    void stoplocalAudioSource();

    // Stream injection and video set-up
    void setupLocalVideo(int callId, VideoSink* videoSink);
    void setupRemoteVideo(int callId, VideoSink* videoSink);
    void sendVideoPacket(int callId, const uint8_t* packet, int len, uint8_t payloadType,
                         uint32_t timeStamp);
    void audioPlay(int callId, const char* fileName);
    void flowStream();
    void inlineflowStream(bool video, int selfCallId, uint8_t payloadType, uint32_t timeStamp,
                          const uint8_t* packet, int len);
    void inlineSendRtcp(int selfCallId, bool pli);
    void onRemoteVideoReady(int callId);

    // Read access for tests and diagnostics.
    Account* currentAccount() const;
    Call* currentCall() const;
    bool hasCapturer() const;
    size_t callCount();
    // Removes any entry still naming a call that is being destroyed, so the
    // registry never holds a freed call (entries with ids of 0 or less stay until then).
    void dropStale(Call* call);
    bool isRegistered(int callId);

  private:
    SipEngineManager(const SipEngineManager&) = delete;
    SipEngineManager& operator=(const SipEngineManager&) = delete;

    // Registry look-ups hand out calls held (see sipenginemanager.cpp): a held call
    // is not freed until every holder lets go. No lock is held once they return.
    std::vector<std::pair<int, Call*>> snapshot();
    Call* lookup(int callId, bool* registryEmpty);
    Call* takeHungUp(int callId);
    void forgetHungUp(Call* call);
    Call* startCall(const char* calleeUri, CallParams callParams, int* callId);
    void endCall(Call* heldCall, int state, int reason, bool* selfHangup);
    void releaseMedia();
    // The shared camera, taken from the manager; its last release closes it.
    libwebrtc::scoped_refptr<libwebrtc::RTCVideoCapturer> takeCamera();
    void releaseRetiredAccounts();
    void reportRegistration(int accId, int state, const char* text, const char* reason);

    SipEngine* sipEngine;
    Account* current_account;
    Call* current_call;
    libwebrtc::scoped_refptr<libwebrtc::RTCPeerConnectionFactory> rtcPeerConnectionFactory;
    libwebrtc::scoped_refptr<libwebrtc::RTCVideoCapturer> capturer;
    RegistrationStateObserver* registrationStateObserver;
    CallStateObserver* callStateObserver;
    CallStreamObserver* callStreamObserver;
    std::string defaultAudioRecordingDeviceGuid;
    std::string defaultAudioPlayoutDeviceGuid;
    std::string defaultVideoDeviceGuid;
    std::map<int, Call*> mCallMap;
    std::mutex call_map_mutex;

    // Calls ended by the local hangup: out of the registry, reclaimed when the
    // engine reports their end (or with the manager).
    std::list<Call*> hungUpCalls;
    std::mutex hungUpMutex;
    std::vector<Account*> retiredAccounts;
};

}  // namespace zarnrtc

#endif
