#ifndef SIP_REGISTRATION_STATE_DELEGATE_H
#define SIP_REGISTRATION_STATE_DELEGATE_H

// Registration events of a SipEngine, called on the engine's own thread.
class RegistrationStateDelegate {
  public:
    virtual void OnRegistrationProgress(int accId) = 0;
    virtual void OnRegistrationSuccess(int accId) = 0;
    virtual void OnRegistrationClear(int accId) = 0;
    // code: SIP status (or 0 when no response came); reason: its text, never null.
    virtual void OnRegistrationFailed(int accId, int code, const char* reason) = 0;
    // An out-of-dialog MESSAGE.
    virtual void onMessage(const char* fromUri, const char* message) = 0;
    virtual ~RegistrationStateDelegate() {}
};

#endif
