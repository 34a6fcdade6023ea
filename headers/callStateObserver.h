#ifndef ZARNRTC_CALLSTATEOBSERVER_H
#define ZARNRTC_CALLSTATEOBSERVER_H

namespace zarnrtc {

class CallStateObserver {
  public:
    virtual void onIncomingCall(int callId, const char* callerDisplayName,
                                const char* callerUri) = 0;
    virtual void onCallStateChange(int callId, int stateCode, int reasonCode) = 0;
    virtual ~CallStateObserver() {}
};

}  // namespace zarnrtc

#endif
