// Accounts: REGISTER with digest authentication, refresh by the stack, retry with
// back-off while the registrar or the connection is away, and un-REGISTER.
#include <algorithm>

#include "log.h"
#include "sip_text.h"
#include "status_codes.h"
#include "user_agent.h"

namespace sipengine {

namespace {

constexpr int kFirstRetryMs = 1000;
constexpr int kMaxRetryMs = 30000;

// Worth trying again later: no answer, transport trouble or a server in trouble.
// Credentials and address problems (401, 403, 404, ...) will not mend themselves.
bool retryable(int status) {
    return status == kStatusRequestTimeout || status == kStatusTemporarilyUnavailable ||
           status >= kStatusServerError || status == 0;
}

// The stack reports transport failures with its own status codes (>= 700 or a made-up
// response); the delegate gets 0 for "no response came".
int reportedCode(int status, sip_t const* sip) {
    if (status >= kStatusFirstStackOwn || !sip || !sip->sip_status) return 0;
    return status;
}

}  // namespace

void UserAgent::startAccount(std::unique_ptr<Account> account) {
    if (closing_) return;
    Account& acc = *account;
    accounts_[acc.id] = std::move(account);
    sendRegister(acc);
}

bool UserAgent::ensureHandle(Account& acc) {
    if (acc.nh) return true;
    const AccountConfig& cfg = acc.config;
    std::string aor = aorOf(cfg);
    std::string from = cfg.displayName.empty()
                           ? "<" + aor + ">"
                           : quotedDisplayName(cfg.displayName.c_str()) + " <" + aor + ">";
    std::string route;
    if (cfg.proxy != cfg.domain) route = "<" + firstHopUri(cfg) + ";lr>";
    acc.nh = nua_handle(nua_, &acc, SIPTAG_TO_STR(aor.c_str()), SIPTAG_FROM_STR(from.c_str()),
                        TAG_IF(!route.empty(), NUTAG_INITIAL_ROUTE_STR(route.c_str())), TAG_END());
    return acc.nh != nullptr;
}

// A failed registration leaves state in its handle (a pending challenge, a usage) that
// would keep the stack busy; the next attempt starts from a fresh handle.
void UserAgent::releaseHandle(Account& acc) {
    if (!acc.nh) return;
    nua_handle_bind(acc.nh, nullptr);
    nua_handle_destroy(acc.nh);
    acc.nh = nullptr;
}

void UserAgent::sendRegister(Account& acc) {
    std::string why = "cannot create SIP handle";
    if (!ensureStack(acc.config, &why) || !ensureHandle(acc)) {
        if (RegistrationStateDelegate* delegate = regDelegate_.load()) {
            delegate->OnRegistrationFailed(acc.id, 0, why.c_str());
        }
        scheduleRetry(acc);
        return;
    }
    acc.authTried = false;
    if (RegistrationStateDelegate* delegate = regDelegate_.load()) {
        delegate->OnRegistrationProgress(acc.id);
    }
    // A TLS server is checked once before the first REGISTER: the stack would drop a
    // bad certificate silently and time out.
    if (acc.config.transport == "tls" && !acc.tlsChecked) {
        startTlsProbe(acc);
        return;
    }
    issueRegister(acc, false, "");
}

void UserAgent::issueRegister(Account& acc, bool proxy, const std::string& credentials) {
    acc.inFlight = true;
    std::string registrar = registrarUri(acc.config);
    std::string expires = std::to_string(acc.config.expires);
    bool answer = !credentials.empty();
    logTrace("account %d: REGISTER %s as %s", acc.id, registrar.c_str(), acc.config.user.c_str());
    nua_register(acc.nh, NUTAG_REGISTRAR(URL_STRING_MAKE(registrar.c_str())),
                 NUTAG_M_USERNAME(acc.config.user.c_str()), SIPTAG_EXPIRES_STR(expires.c_str()),
                 TAG_IF(answer && proxy, SIPTAG_PROXY_AUTHORIZATION_STR(credentials.c_str())),
                 TAG_IF(answer && !proxy, SIPTAG_AUTHORIZATION_STR(credentials.c_str())),
                 TAG_END());
}

// Our answer to the registrar's challenge goes out on a fresh handle: the stack's own
// retry cannot carry every password, and the challenged handle waits for it forever.
bool UserAgent::answerChallenge(Account& acc, sip_t const* sip, bool unregister) {
    std::string credentials = digestAnswer(sip, acc.config, "REGISTER", registrarUri(acc.config));
    if (credentials.empty()) return false;
    bool proxy = !sip->sip_www_authenticate;
    releaseHandle(acc);
    if (!ensureHandle(acc)) return false;
    if (!unregister) {
        issueRegister(acc, proxy, credentials);
        return true;
    }
    std::string registrar = registrarUri(acc.config);
    nua_unregister(acc.nh, NUTAG_REGISTRAR(URL_STRING_MAKE(registrar.c_str())),
                   NUTAG_M_USERNAME(acc.config.user.c_str()),
                   TAG_IF(proxy, SIPTAG_PROXY_AUTHORIZATION_STR(credentials.c_str())),
                   TAG_IF(!proxy, SIPTAG_AUTHORIZATION_STR(credentials.c_str())), TAG_END());
    return true;
}

void UserAgent::onRegisterResponse(Account& acc, int status, char const* phrase, sip_t const* sip) {
    if (!isFinal(status)) return;
    if (closing_) {
        dropAccount(acc);
        continueShutdown();
        return;
    }
    if (isChallenge(status) && !acc.authTried && acc.wanted) {
        acc.authTried = true;
        if (answerChallenge(acc, sip, false)) return;
    }
    acc.inFlight = false;
    acc.authTried = false;  // the stack's own refreshes may be challenged again
    if (!acc.wanted) return;
    RegistrationStateDelegate* delegate = regDelegate_.load();
    if (isSuccess(status)) {
        acc.backoffMs = 0;
        stopServerWatch(acc);
        learnServer(acc);
        refreshTargets(acc);
        if (!acc.registered) {
            acc.registered = true;
            if (delegate) delegate->OnRegistrationSuccess(acc.id);
        }
        return;
    }
    acc.registered = false;
    releaseHandle(acc);
    int code = reportedCode(status, sip);
    logTrace("account %d: registration failed %d %s", acc.id, status, phrase ? phrase : "");
    if (delegate) delegate->OnRegistrationFailed(acc.id, code, phrase ? phrase : "");
    if (retryable(code)) scheduleRetry(acc);
}

void UserAgent::scheduleRetry(Account& acc) {
    if (!acc.retryTimer) acc.retryTimer = su_timer_create(su_root_task(root_), 0);
    if (!acc.retryTimer) return;
    acc.backoffMs = acc.backoffMs ? std::min(acc.backoffMs * 2, kMaxRetryMs) : kFirstRetryMs;
    su_timer_set_interval(acc.retryTimer, onRetryTimer, &acc, acc.backoffMs);
    startServerWatch(acc);
}

void UserAgent::onRetryTimer(void* magic, su_timer_t*, void* arg) {
    auto* self = static_cast<UserAgent*>(magic);
    auto* acc = static_cast<Account*>(arg);
    if (self->closing_ || !acc->wanted || acc->inFlight || acc->probing) return;
    self->sendRegister(*acc);
}

void UserAgent::deregister(int accId) {
    auto it = accounts_.find(accId);
    if (it == accounts_.end() || !it->second->wanted || closing_) return;
    Account& acc = *it->second;
    acc.wanted = false;
    if (acc.retryTimer) su_timer_reset(acc.retryTimer);
    if (acc.nh && (acc.registered || acc.inFlight)) {
        acc.inFlight = true;
        acc.authTried = false;
        nua_unregister(acc.nh, TAG_END());
        return;
    }
    if (RegistrationStateDelegate* delegate = regDelegate_.load()) {
        delegate->OnRegistrationClear(acc.id);
    }
    dropAccount(acc);
}

void UserAgent::onUnregisterResponse(Account& acc, int status, char const*, sip_t const* sip) {
    if (!isFinal(status)) return;
    if (isChallenge(status) && !acc.authTried) {
        acc.authTried = true;
        if (answerChallenge(acc, sip, true)) return;
    }
    if (closing_) {
        dropAccount(acc);
        continueShutdown();
        return;
    }
    // Cleared whatever the registrar said: a binding left behind expires on its own.
    if (RegistrationStateDelegate* delegate = regDelegate_.load()) {
        delegate->OnRegistrationClear(acc.id);
    }
    dropAccount(acc);
}

// Calls use the newest account not de-registered.
const Account* UserAgent::currentAccount() const {
    for (auto it = accounts_.rbegin(); it != accounts_.rend(); ++it) {
        if (it->second->wanted) return it->second.get();
    }
    return nullptr;
}

void UserAgent::dropAccount(Account& acc) {
    if (acc.retryTimer) su_timer_destroy(acc.retryTimer), acc.retryTimer = nullptr;
    stopServerWatch(acc);
    releaseHandle(acc);
    accounts_.erase(acc.id);  // frees acc
}

}  // namespace sipengine
