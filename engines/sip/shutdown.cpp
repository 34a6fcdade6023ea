// The end of a UserAgent: our own goodbyes first (CANCEL, BYE, 480, un-REGISTER), then
// the stack's shutdown, each bounded in time, then the stack and its root are freed.
#include <unistd.h>

#include <mutex>
#include <vector>

#include "log.h"
#include "status_codes.h"
#include "user_agent.h"

namespace sipengine {

namespace {

// How long the destructor waits for our own goodbyes, then for the stack's shutdown.
constexpr int kGoodbyeBoundMs = 2000;
constexpr int kShutdownBoundMs = 3000;

}  // namespace

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
    endCallsForShutdown();
    leaveAccountsForShutdown();
    continueShutdown();
}

void UserAgent::endCallsForShutdown() {
    std::vector<int> callIds;
    for (auto& entry : calls_) callIds.push_back(entry.first);
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
}

void UserAgent::leaveAccountsForShutdown() {
    std::vector<int> accountIds;
    for (auto& entry : accounts_) accountIds.push_back(entry.first);
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

void UserAgent::onStackShutdown(int status) {
    if (!isFinal(status)) return;  // still closing handles
    shutdownDone_ = true;
    su_root_break(root_);
}

void UserAgent::teardownStack() {
    {
        std::lock_guard<std::mutex> lock(queueMutex_);
        queueOpen_ = false;
        queue_.clear();
    }
    joinProbes(true);  // each ends within its time bound; their results are dropped
    for (auto& entry : accounts_) {
        if (entry.second->retryTimer) su_timer_destroy(entry.second->retryTimer);
        entry.second->retryTimer = nullptr;
        stopServerWatch(*entry.second);
    }
    for (auto& entry : calls_) stopRingBound(*entry.second);
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

}  // namespace sipengine
