#ifndef SIP_CALL_STATE_DELEGATE_H
#define SIP_CALL_STATE_DELEGATE_H

// Call events of a SipEngine, called on the engine's own thread. state values are
// those of zarnrtc::CallState (0 new .. 13 updated); every call ends with exactly
// one state 7 (hang-up), after which its id gets no more events.
class CallStateDelegate {
  public:
    virtual void OnIncomingCall(int accId, int callId, const char* fromDisplayName,
                                const char* fromUri, const char* toUri) = 0;
    virtual void OnCallStateChange(int callId, int state, int reason, const char* text) = 0;
    virtual void OnCallOffer(int callId, const char* sdp, bool hasAudio, bool hasVideo) = 0;
    virtual void OnEarlyMediaSdp(int callId, const char* sdp) = 0;
    virtual void OnCallAnswer(int callId, const char* sdp, bool hasAudio, bool hasVideo) = 0;
    virtual void OnDtmfEvent(int callId, int digit, int durationMs, bool isInfo) = 0;
    virtual void OnInfoEvent(int callId, const char* body) = 0;
    virtual void OnMediaStateChange(int callId, const char* sdp, bool hasAudio, bool hasVideo) = 0;
    virtual ~CallStateDelegate() {}
};

#endif
