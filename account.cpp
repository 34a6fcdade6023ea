#include "account.h"

#include "nulltext.h"
#include "sipenginemanager.h"

namespace zarnrtc {

Account::Account()
    : accId(0),
      state(0),
      code(0),
      sipEngineManager(nullptr),
      presence_risip(0),
      autoSignIn(true),
      status(-1),
      lastSipResponseCode(0) {}

Account::~Account() {}

int Account::getAccId() {
    return accId;
}

void Account::setAccId(int id) {
    if (accId != id) accId = id;
}

void Account::setSipEngineManager(SipEngineManager* manager) {
    if (sipEngineManager != manager) sipEngineManager = manager;
}

void Account::setRegistrationState(int s, int c, std::string r) {
    state = s;
    code = c;
    reason = r;
}

void Account::unregisterAccount() {
    if (sipEngineManager) sipEngineManager->unregisterSipAccount(accId);
}

int Account::lastResponseCode() {
    return lastSipResponseCode;
}

void Account::setLastResponseCode(int c) {
    if (lastSipResponseCode != c) lastSipResponseCode = c;
}

int Account::errorCode() {
    return 0;
}

// These three have no text behind them in this version.
std::string Account::errorMessage() {
    return textOf(nullptr);
}
std::string Account::errorInfo() {
    return textOf(nullptr);
}
std::string Account::presenceNote() {
    return textOf(nullptr);
}

int Account::presence() {
    return 0;
}
void Account::setPresence(int) {}
void Account::setPresenceNote(std::string) {}

}  // namespace zarnrtc
