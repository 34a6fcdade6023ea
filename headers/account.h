#ifndef ZARNRTC_ACCOUNT_H
#define ZARNRTC_ACCOUNT_H

#include <string>

#include "zarnrtcsdkglobal.h"

namespace zarnrtc {

class SipEngineManager;

// The one registered SIP account of a manager and its last registration state.
class ZARNRTC_API Account {
  public:
    Account();
    ~Account();

    int getAccId();
    void setAccId(int accId);
    void setSipEngineManager(SipEngineManager* manager);
    void setRegistrationState(int state, int code, std::string reason);
    void unregisterAccount();
    int lastResponseCode();
    void setLastResponseCode(int code);
    int errorCode();
    std::string errorMessage();
    std::string errorInfo();
    int presence();
    void setPresence(int presence);
    std::string presenceNote();
    void setPresenceNote(std::string note);

    // Declared for source compatibility; not implemented.
    void login();
    void logout();

    int getState() const { return state; }
    int getCode() const { return code; }
    std::string getReason() const { return reason; }

  private:
    int accId;
    int state;
    int code;
    std::string reason;
    SipEngineManager* sipEngineManager;
    int presence_risip;
    bool autoSignIn;
    int status;
    int lastSipResponseCode;
};

}  // namespace zarnrtc

#endif
