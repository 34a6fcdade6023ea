#ifndef ZARNRTC_IRTCENGINEEVENTHANDLER_H
#define ZARNRTC_IRTCENGINEEVENTHANDLER_H

namespace zarnrtc {

// Implemented by the application; called on the SIP or media engine's threads.
class IRtcEngineEventHandler {
  public:
    // state: 0 progress, 1 success, 2 cleared, 3 failed (reason set only for 3).
    virtual void onRegistrationState(int accId, int state, const char* reason) = 0;
    virtual void onMessage(const char* message) = 0;
    virtual void onIncomingCall(int callId, const char* callerDisplayName,
                                const char* callerUri) = 0;
    // stateCode: a CallState value.
    virtual void onCallStateChange(int callId, int stateCode, int reasonCode) = 0;
    virtual void onLocalVideoReady(int callId) = 0;
    virtual void onRemoteVideoReady(int callId) = 0;
    virtual void onUpdatedByLocal(int callId, bool video) = 0;
    virtual void onUpdatedByRemote(int callId, bool video) = 0;
    virtual ~IRtcEngineEventHandler() {}
};

}  // namespace zarnrtc

#endif
