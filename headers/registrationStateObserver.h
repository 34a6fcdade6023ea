#ifndef ZARNRTC_REGISTRATIONSTATEOBSERVER_H
#define ZARNRTC_REGISTRATIONSTATEOBSERVER_H

namespace zarnrtc {

class RegistrationStateObserver {
  public:
    virtual void onRegistrationState(int accId, int code, const char* reason) = 0;
    virtual void onMessage(const char* message) = 0;
    virtual ~RegistrationStateObserver() {}
};

}  // namespace zarnrtc

#endif
