// Thread, task queue, stack lifetime and event dispatch of a UserAgent.
#include "user_agent.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "call_state.h"
#include "log.h"
#include "sip_text.h"
#include "status_codes.h"

namespace sipengine {

namespace {

// How long the destructor waits for our own goodbyes (BYE, CANCEL, un-REGISTER), then
// for the stack's shutdown.
constexpr int kGoodbyeBoundMs = 2000;
constexpr int kShutdownBoundMs = 3000;

void initSofiaOnce() {
    static std::once_flag once;
    std::call_once(once, [] {
        // Never su_deinit(): other engines may live until the process ends.
        su_init();
        int level = logLevel();
        su_log_set_level(su_log_default, level >= 2 ? level : 0);
    });
}

std::string bindUrl(int localPort) {
    const char* host = getenv("ZARNRTC_SIP_BIND");
    std::string h = host && *host ? host : "*";
    if (h.find(':') != std::string::npos && h.front() != '[') h = "[" + h + "]";
    return "sip:" + h + ":" + std::to_string(localPort < 0 ? 0 : localPort);
}

}  // namespace

UserAgent::UserAgent(int localPort) {
    initSofiaOnce();
    std::promise<void> started;
    std::future<void> ready = started.get_future();
    thread_ = std::thread([this, localPort, &started] { run(localPort, &started); });
    ready.wait();
}

UserAgent::~UserAgent() {
    if (thread_.joinable()) {
        post([this] { beginShutdown(); });
        thread_.join();
    }
}

void UserAgent::destroy(UserAgent* ua) {
    if (!ua) return;
    if (std::this_thread::get_id() != ua->thread_.get_id()) {
        delete ua;
        return;
    }
    // Called from a delegate: we cannot join ourselves. The thread finishes the
    // shutdown once the callback returns and then frees the agent.
    ua->closing_ = true;
    ua->selfDestroy_ = true;
    ua->thread_.detach();
    ua->post([ua] { ua->beginShutdown(); });
}

void UserAgent::run(int localPort, std::promise<void>* started) {
    threadId_ = std::this_thread::get_id();
    root_ = su_root_create(this);
    if (root_) {
        // Keep the NUA stack on this thread instead of a clone thread of its own.
        su_root_threading(root_, 0);
        eventFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (eventFd_ >= 0 && su_wait_create(wait_, eventFd_, SU_WAIT_IN) == 0 &&
            su_root_register(root_, wait_, onWakeup, this, 0) >= 0) {
            waitRegistered_ = true;
            std::lock_guard<std::mutex> lock(queueMutex_);
            queueOpen_ = true;
        }
        if (waitRegistered_) createStack(localPort);
    }
    if (!waitRegistered_) logError("cannot start the SIP event loop");
    started->set_value();  // `started` is gone after this line

    if (waitRegistered_) su_root_run(root_);
    teardownStack();
    if (selfDestroy_) delete this;
}

bool UserAgent::createStack(int localPort) {
    std::string url = bindUrl(localPort);
    nua_ = nua_create(root_, onNuaEvent, this, NUTAG_URL(url.c_str()),
                      // SDP bodies go through untouched: no offer/answer engine.
                      NUTAG_MEDIA_ENABLE(0), NUTAG_AUTOALERT(0), NUTAG_AUTOANSWER(0),
                      NUTAG_AUTOACK(1), NUTAG_ENABLEMESSAGE(1), NUTAG_ALLOW("INFO, MESSAGE"),
                      NUTAG_OUTBOUND("no-options-keepalive no-validate"),
                      // No 100rel: a 183 must stay unreliable (no PRACK round).
                      SIPTAG_SUPPORTED_STR("path"), SIPTAG_USER_AGENT_STR("ZarnRtc-sipengine/1.0"),
                      TPTAG_LOG(logLevel() >= 1), TAG_END());
    if (!nua_) {
        logError("cannot open SIP transport %s", url.c_str());
        return false;
    }
    logTrace("user agent listening on %s", url.c_str());
    return true;
}

void UserAgent::teardownStack() {
    {
        std::lock_guard<std::mutex> lock(queueMutex_);
        queueOpen_ = false;
        queue_.clear();
    }
    for (auto& entry : accounts_) {
        if (entry.second->retryTimer) su_timer_destroy(entry.second->retryTimer);
        entry.second->retryTimer = nullptr;
    }
    if (shutdownTimer_) su_timer_destroy(shutdownTimer_), shutdownTimer_ = nullptr;
    bool leak = false;
    if (nua_) {
        if (shutdownDone_) {
            nua_destroy(nua_);  // destroys every handle still open
        } else {
            // nua_destroy refuses an unfinished shutdown; the stack and its root are
            // left behind rather than freed under its feet.
            logError("SIP stack did not shut down within %d ms; leaving it", kShutdownBoundMs);
            leak = true;
        }
        nua_ = nullptr;
    }
    accounts_.clear();
    calls_.clear();
    if (root_ && !leak) {
        if (waitRegistered_) su_root_unregister(root_, wait_, onWakeup, this);
        su_root_destroy(root_);
    }
    root_ = nullptr;
    if (eventFd_ >= 0) close(eventFd_), eventFd_ = -1;
}

void UserAgent::post(Task task) {
    {
        std::lock_guard<std::mutex> lock(queueMutex_);
        if (!queueOpen_) return;
        queue_.push_back(std::move(task));
    }
    uint64_t one = 1;
    if (write(eventFd_, &one, sizeof one) < 0) {
        // Only EAGAIN is possible, and then the counter is already non-zero.
    }
}

int UserAgent::onWakeup(void* magic, su_wait_t*, void*) {
    auto* self = static_cast<UserAgent*>(magic);
    uint64_t value;
    if (read(self->eventFd_, &value, sizeof value) < 0) {
        // Spurious wake-up: nothing to read.
    }
    self->drainQueue();
    return 0;
}

void UserAgent::drainQueue() {
    std::deque<Task> tasks;
    {
        std::lock_guard<std::mutex> lock(queueMutex_);
        tasks.swap(queue_);
    }
    for (auto& task : tasks) task();
}

void UserAgent::beginShutdown() {
    if (closing_ && (shutdownTimer_ || shutdownDone_)) return;
    closing_ = true;
    if (!nua_) {
        shutdownDone_ = true;
        su_root_break(root_);
        return;
    }
    shutdownTimer_ = su_timer_create(su_root_task(root_), 0);
    if (shutdownTimer_) {
        su_timer_set_interval(shutdownTimer_, onShutdownTimeout, nullptr, kGoodbyeBoundMs);
    }
    // Say goodbye ourselves first: nua_shutdown() polls busy handles only once a
    // second, while an idle stack shuts down at once.
    std::vector<int> callIds, accountIds;
    for (auto& entry : calls_) callIds.push_back(entry.first);
    for (auto& entry : accounts_) accountIds.push_back(entry.first);
    for (int id : callIds) {
        auto it = calls_.find(id);
        if (it == calls_.end()) continue;
        Call& call = *it->second;
        if (call.ended) continue;  // already on its way out
        call.ended = true;
        if (call.outgoing && !call.answered) {
            nua_cancel(call.nh, TAG_END());
        } else if (!call.outgoing && !call.localAnswer) {
            nua_respond(call.nh, SIP_480_TEMPORARILY_UNAVAILABLE, TAG_END());
        } else {
            nua_bye(call.nh, TAG_END());
        }
    }
    for (int id : accountIds) {
        auto it = accounts_.find(id);
        if (it == accounts_.end()) continue;
        Account& acc = *it->second;
        if (acc.retryTimer) su_timer_reset(acc.retryTimer);
        if (acc.nh && acc.registered && acc.wanted) {
            acc.wanted = false;
            acc.inFlight = true;
            acc.authTried = false;
            nua_unregister(acc.nh, TAG_END());
        } else if (!acc.inFlight) {
            dropAccount(acc);
        }
    }
    continueShutdown();
}

void UserAgent::continueShutdown() {
    if (!closing_ || stackShutdownSent_ || !calls_.empty() || !accounts_.empty()) return;
    stackShutdownSent_ = true;
    if (shutdownTimer_) {
        su_timer_set_interval(shutdownTimer_, onShutdownTimeout, nullptr, kShutdownBoundMs);
    }
    nua_shutdown(nua_);
}

void UserAgent::onShutdownTimeout(void* magic, su_timer_t*, void*) {
    auto* self = static_cast<UserAgent*>(magic);
    if (!self->stackShutdownSent_) {
        // Goodbyes took too long (a peer that never answers our CANCEL or BYE): drop
        // what is left, so the stack has nothing to wait for.
        while (!self->calls_.empty()) self->releaseCall(*self->calls_.begin()->second);
        while (!self->accounts_.empty()) self->dropAccount(*self->accounts_.begin()->second);
        if (self->stackShutdownSent_) return;  // the last release started it
        self->stackShutdownSent_ = true;
        su_timer_set_interval(self->shutdownTimer_, onShutdownTimeout, nullptr, kShutdownBoundMs);
        nua_shutdown(self->nua_);
        return;
    }
    su_root_break(self->root_);
}

void UserAgent::onNuaEvent(nua_event_t event, int status, char const* phrase, nua_t*,
                           UserAgent* self, nua_handle_t* nh, HandleContext* ctx, sip_t const* sip,
                           tagi_t tags[]) {
    self->dispatch(event, status, phrase, nh, ctx, sip, tags);
}

void UserAgent::dispatch(nua_event_t event, int status, char const* phrase, nua_handle_t* nh,
                         HandleContext* ctx, sip_t const* sip, tagi_t tags[]) {
    logTrace("event %s %d %s", nua_event_name(event), status, phrase ? phrase : "");
    if (event == nua_r_shutdown) {
        if (status >= 200) {
            shutdownDone_ = true;
            su_root_break(root_);
        }
        return;
    }
    Account* account =
        ctx && ctx->kind == HandleContext::Kind::kAccount ? static_cast<Account*>(ctx) : nullptr;
    Call* call = ctx && ctx->kind == HandleContext::Kind::kCall ? static_cast<Call*>(ctx) : nullptr;
    switch (event) {
        case nua_r_register:
            if (account) onRegisterResponse(*account, status, phrase, sip);
            return;
        case nua_r_unregister:
            if (account) onUnregisterResponse(*account, status, phrase, sip);
            return;
        case nua_i_invite:
            if (call)
                onIncomingReinvite(*call, sip);
            else if (!ctx)
                onIncomingInvite(nh, sip);
            return;
        case nua_r_invite:
            if (call) onInviteResponse(*call, status, phrase, sip);
            return;
        case nua_i_state: {
            int callState = nua_callstate_init;
            tl_gets(tags, NUTAG_CALLSTATE_REF(callState), TAG_END());
            if (call) {
                onCallState(*call, callState, status, phrase);
            } else if (!ctx && callState == nua_callstate_terminated) {
                nua_handle_destroy(nh);  // an INVITE we refused without a call
            }
            return;
        }
        case nua_r_bye:
            if (call && status >= 200) call->lastStatus = status;
            return;
        case nua_i_bye:
            if (call) call->lastStatus = kStatusOk;
            return;
        case nua_i_cancel:
            if (call) {
                call->lastStatus = kStatusRequestTerminated;
                reportState(*call, kCancel, kStatusRequestTerminated, "Request Terminated");
            }
            return;
        case nua_i_info:
            if (call)
                onInfo(*call, sip);
            else if (!ctx)
                nua_handle_destroy(nh);
            return;
        case nua_i_message:
            onMessage(nh, sip);
            if (!ctx) nua_handle_destroy(nh);
            return;
        case nua_i_options:
        case nua_i_subscribe:
        case nua_i_refer:
        case nua_i_notify:
        case nua_i_publish:
            // Answered by the stack; a handle made just for the request is ours to free.
            if (!ctx) nua_handle_destroy(nh);
            return;
        default:
            return;
    }
}

bool UserAgent::authenticate(nua_handle_t* nh, sip_t const* sip, const AccountConfig& cfg) {
    if (!sip) return false;
    msg_auth_t const* challenge =
        sip->sip_www_authenticate ? sip->sip_www_authenticate : sip->sip_proxy_authenticate;
    if (!challenge || !challenge->au_scheme) return false;
    // The realm stays quoted, as the stack's credential syntax wants it.
    char const* realm = msg_params_find(challenge->au_params, "realm=");
    std::string credentials = std::string(challenge->au_scheme) + ":" + (realm ? realm : "\"\"") +
                              ":" + cfg.authUser + ":" + cfg.password;
    nua_authenticate(nh, NUTAG_AUTH(credentials.c_str()), TAG_END());
    std::fill(credentials.begin(), credentials.end(), '\0');
    return true;
}

void UserAgent::onMessage(nua_handle_t*, sip_t const* sip) {
    RegistrationStateDelegate* delegate = regDelegate_.load();
    if (closing_ || !delegate || !sip) return;
    std::string from;
    if (sip->sip_from) {
        char* text = url_as_string(nullptr, sip->sip_from->a_url);
        if (text) from = text;
        su_free(nullptr, text);
    }
    std::string body;
    if (sip->sip_payload) body.assign(sip->sip_payload->pl_data, sip->sip_payload->pl_len);
    delegate->onMessage(from.c_str(), body.c_str());
}

const Account* UserAgent::currentAccount() const {
    for (auto it = accounts_.rbegin(); it != accounts_.rend(); ++it) {
        if (it->second->wanted) return it->second.get();
    }
    return nullptr;
}

// Public operations: copy the arguments and queue the work.

int UserAgent::makeRegister(AccountConfig config) {
    int id = nextAccountId_.fetch_add(1);
    auto account = std::make_unique<Account>();
    account->id = id;
    account->config = std::move(config);
    // std::function needs a copyable callable; the holder also frees the account
    // when the task is dropped because the agent is going away.
    auto holder = std::make_shared<std::unique_ptr<Account>>(std::move(account));
    post([this, holder] { startAccount(std::move(*holder)); });
    return id;
}

void UserAgent::makeDeRegister(int accId) {
    post([this, accId] { deregister(accId); });
}

namespace {
std::string copyText(const char* s) {
    return s ? s : "";
}
}  // namespace

void UserAgent::makeCall(int callId, const char* callee, const char* displayName,
                         const char* deviceType, const char* sdp, int mediaResolution) {
    post([this, callId, c = copyText(callee), d = copyText(displayName), t = copyText(deviceType),
          s = copyText(sdp), mediaResolution] { startCall(callId, c, d, t, s, mediaResolution); });
}

void UserAgent::accept(int callId, const char* sdp, const char* deviceType, int mediaResolution) {
    post([this, callId, s = copyText(sdp), t = copyText(deviceType), mediaResolution] {
        acceptCall(callId, s, t, mediaResolution);
    });
}

void UserAgent::reject(int callId, int code) {
    post([this, callId, code] { rejectCall(callId, code); });
}

void UserAgent::hangup(int callId) {
    post([this, callId] { hangupCall(callId); });
}

void UserAgent::updateMedia(int callId, const char* sdp) {
    post([this, callId, s = copyText(sdp)] { reinvite(callId, s); });
}

}  // namespace sipengine
