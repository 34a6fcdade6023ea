#ifndef SIP_SIP_ENGINE_H
#define SIP_SIP_ENGINE_H

#include "CallStateDelegate.h"
#include "RegistrationStateDelegate.h"

#ifndef SIP_ENGINE_API
#define SIP_ENGINE_API __attribute__((visibility("default")))
#endif

class SipEngineImpl;

// One SIP user agent. The definition lives in whichever libsipengine is linked (the
// device vendor's, the host engine, or the test fake). Operations may be called from
// any thread and return at once; results arrive through the two delegates.
class SIP_ENGINE_API SipEngine {
  public:
    // localPort: local SIP port to listen on, 0 for any free port.
    explicit SipEngine(int localPort);
    ~SipEngine();

    bool Initialize();
    bool startSipEngine();
    void stopSipEngine();
    void Terminate();

    // Delegates are not owned; set them before any operation.
    void RegisterRegistrationDelegate(RegistrationStateDelegate* delegate);
    void RegisterCallStateDelegate(CallStateDelegate* delegate);

    // Returns the account id (> 0), or -1 on bad arguments.
    int MakeRegister(const char* username, const char* authName, const char* password,
                     const char* server, const char* proxy, const char* transport, int expires,
                     const char* displayName, bool useIPv6);
    void MakeDeRegister(int accId);

    // A fresh call id (> 0) for MakeCall.
    int CreateCall();
    void MakeCall(int callId, const char* calleeUri, const char* displayName,
                  const char* deviceType, const char* sdp, int mediaResolution);
    void Accept(int callId, const char* sdp, const char* deviceType, bool sendAudio, bool sendVideo,
                int mediaResolution);
    void Reject(int callId, int code);
    void Hangup(int callId);
    void UpdateMediaState(int callId, bool sendOffer, const char* sdp, bool sendAudio,
                          bool sendVideo);

  private:
    SipEngine(const SipEngine&) = delete;
    SipEngine& operator=(const SipEngine&) = delete;

    SipEngineImpl* impl_;
};

#endif
