// A UserAgent's thread and task queue, and its public operations, which copy their
// arguments and queue the work onto that thread.
#include "user_agent.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>

#include "log.h"

namespace sipengine {

namespace {

void initSofiaOnce() {
    static std::once_flag once;
    std::call_once(once, [] {
        // Never su_deinit(): other engines may live until the process ends.
        su_init();
        int level = logLevel();
        su_log_set_level(su_log_default, level >= 2 ? level : 0);
    });
}

}  // namespace

UserAgent::UserAgent(int localPort) : localPort_(localPort) {
    initSofiaOnce();
    std::promise<void> started;
    std::future<void> ready = started.get_future();
    thread_ = std::thread([this, &started] { run(&started); });
    ready.wait();
}

UserAgent::~UserAgent() {
    if (thread_.joinable()) {
        // No delegate calls from here on, also for events the thread handles before
        // it gets to the shutdown.
        closing_ = true;
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

void UserAgent::run(std::promise<void>* started) {
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
        loadTrustConfig();
        startMediaWatch();
        // Without a server, only an installation that lists its peers listens at once;
        // otherwise the stack waits for the account and binds where it lives.
        std::string why;
        if (waitRegistered_ && trust_.hasAllowedPeers() && !createStack(nullptr, &why))
            logError("%s", why.c_str());
    }
    if (!waitRegistered_) logError("cannot start the SIP event loop");
    started->set_value();  // `started` is gone after this line

    if (waitRegistered_) su_root_run(root_);
    stopMediaWatch();
    teardownStack();
    if (selfDestroy_) delete this;
}

void UserAgent::post(Task task) {
    // The wake-up is written under the lock too: once the loop has closed the queue
    // it may close the descriptor, and a late write could hit a reused one.
    std::lock_guard<std::mutex> lock(queueMutex_);
    if (!queueOpen_) return;
    queue_.push_back(std::move(task));
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
    // Starting the stack runs the event loop for a moment (inside nua_create): a task
    // must not run inside another one. The outer drain picks up what came meanwhile.
    if (draining_) return;
    draining_ = true;
    for (;;) {
        std::deque<Task> tasks;
        {
            std::lock_guard<std::mutex> lock(queueMutex_);
            tasks.swap(queue_);
        }
        if (tasks.empty()) break;
        for (auto& task : tasks) task();
    }
    draining_ = false;
}

// Public operations.

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

int UserAgent::createCall() {
    int id = nextCallId_.fetch_add(1);
    post([this, id] {
        unsent_.insert(id);
        if (unsent_.size() > kMaxUnsentIds) unsent_.erase(unsent_.begin());
    });
    return id;
}

void UserAgent::hangup(int callId) {
    post([this, callId] { hangupCall(callId); });
}

void UserAgent::updateMedia(int callId, const char* sdp) {
    post([this, callId, s = copyText(sdp)] { reinvite(callId, s); });
}

}  // namespace sipengine
