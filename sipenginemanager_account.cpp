// The manager's one SIP account and its registration reports.
#include <mutex>

#include "nulltext.h"
#include "sdkconstants.h"
#include "sipenginemanager.h"

namespace zarnrtc {

namespace {
// Guards current_account and retiredAccounts: the SIP engine's thread writes the
// record's state while the application's thread replaces or retires it.
std::mutex accountMutex;
}  // namespace

// ---- Account ----

int SipEngineManager::registerAccount(const char* serverIp, const char* username,
                                      const char* password, const char* displayname) {
    if (!sipEngine) return -1;
    Account* account = new Account();
    account->setSipEngineManager(this);
    {
        // Published before the engine can report on it. The replaced record may
        // still be in use on the engine's thread: retire it, freed with the manager.
        std::lock_guard<std::mutex> lock(accountMutex);
        if (current_account) retiredAccounts.push_back(current_account);
        current_account = account;
    }
    int accId =
        sipEngine->MakeRegister(username, username, password, serverIp, serverIp,
                                kRegisterTransport, kRegisterExpirySeconds, displayname, false);
    std::lock_guard<std::mutex> lock(accountMutex);
    account->setAccId(accId);  // still alive: retired records are kept
    return accId;
}

void SipEngineManager::unregisterSipAccount(int accId) {
    if (!sipEngine) return;
    {
        std::lock_guard<std::mutex> lock(accountMutex);
        if (!current_account || current_account->getAccId() != accId) return;
        // Retired, not freed: a registration report may be writing it right now.
        retiredAccounts.push_back(current_account);
        current_account = nullptr;
    }
    sipEngine->MakeDeRegister(accId);
}

Account* SipEngineManager::currentAccount() const {
    std::lock_guard<std::mutex> lock(accountMutex);
    return current_account;
}

void SipEngineManager::releaseRetiredAccounts() {
    std::lock_guard<std::mutex> lock(accountMutex);
    for (Account* a : retiredAccounts) delete a;
    retiredAccounts.clear();
}

void SipEngineManager::reportRegistration(int accId, int state, const char* text,
                                          const char* reason) {
    {
        std::lock_guard<std::mutex> lock(accountMutex);
        if (current_account) current_account->setRegistrationState(state, state, textOf(text));
    }
    if (registrationStateObserver)
        registrationStateObserver->onRegistrationState(accId, state, reason);
}

void SipEngineManager::OnRegistrationProgress(int accId) {
    reportRegistration(accId, kRegistrationProgress, "Progress", nullptr);
}

void SipEngineManager::OnRegistrationSuccess(int accId) {
    reportRegistration(accId, kRegistrationSuccess, "Success", nullptr);
}

void SipEngineManager::OnRegistrationClear(int accId) {
    reportRegistration(accId, kRegistrationCleared, "Clear", nullptr);
}

void SipEngineManager::OnRegistrationFailed(int accId, int, const char* reason) {
    reportRegistration(accId, kRegistrationFailed, reason, reason);
}

void SipEngineManager::onMessage(const char*, const char* message) {
    if (registrationStateObserver) registrationStateObserver->onMessage(message);
}

}  // namespace zarnrtc
