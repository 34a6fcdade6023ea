// An in-process SIP engine: every SipEngine of the process registers its user on
// one switchboard, which hands the SDP text across to the called user and reports
// call states from its own thread, as a real SIP engine would. Calls by user name
// only ("sip:bob@anything"); no network, no authentication. An engine stays on the
// switchboard once registered and queued reports point at it: destroy engines only
// when the process ends, as the SDK does.
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "SipEngine.h"

namespace {

class Switchboard {
  public:
    static Switchboard& Get() {
        static Switchboard* board = new Switchboard;  // lives as long as the engines
        return *board;
    }
    void Post(std::function<void()> fn) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            queue_.push_back(std::move(fn));
        }
        cv_.notify_one();
    }

    std::mutex mutex;  // state below
    std::map<std::string, SipEngine*> users;
    std::map<int, std::pair<SipEngine*, int>> peers;  // call id -> other end
    std::map<int, SipEngine*> owner;
    int next_id = 100;

  private:
    Switchboard() {
        std::thread([this] {
            for (;;) {
                std::function<void()> fn;
                {
                    std::unique_lock<std::mutex> lock(mutex_);
                    cv_.wait(lock, [&] { return !queue_.empty(); });
                    fn = std::move(queue_.front());
                    queue_.pop_front();
                }
                fn();
            }
        }).detach();
    }
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> queue_;
};

}  // namespace

class SipEngineImpl {
  public:
    RegistrationStateDelegate* reg = nullptr;
    CallStateDelegate* calls = nullptr;
    std::string user;
};

SipEngine::SipEngine(int) : impl_(new SipEngineImpl) {}
SipEngine::~SipEngine() {
    delete impl_;
}
bool SipEngine::Initialize() {
    return true;
}
bool SipEngine::startSipEngine() {
    return true;
}
void SipEngine::stopSipEngine() {}
void SipEngine::Terminate() {}
void SipEngine::RegisterRegistrationDelegate(RegistrationStateDelegate* d) {
    impl_->reg = d;
}
void SipEngine::RegisterCallStateDelegate(CallStateDelegate* d) {
    impl_->calls = d;
}

int SipEngine::MakeRegister(const char* username, const char*, const char*, const char*,
                            const char*, const char*, int, const char*, bool) {
    Switchboard& sb = Switchboard::Get();
    std::lock_guard<std::mutex> lock(sb.mutex);
    impl_->user = username ? username : "";
    sb.users[impl_->user] = this;
    int acc = static_cast<int>(sb.users.size());
    sb.Post([this, acc] { impl_->reg->OnRegistrationSuccess(acc); });
    return acc;
}

void SipEngine::MakeDeRegister(int) {}

int SipEngine::CreateCall() {
    Switchboard& sb = Switchboard::Get();
    std::lock_guard<std::mutex> lock(sb.mutex);
    int id = ++sb.next_id;
    sb.owner[id] = this;
    return id;
}

void SipEngine::MakeCall(int callId, const char* calleeUri, const char* displayName, const char*,
                         const char* sdp, int) {
    Switchboard& sb = Switchboard::Get();
    std::string uri(calleeUri ? calleeUri : ""), offer(sdp ? sdp : "");
    std::string user = uri.substr(uri.find(':') + 1);
    user = user.substr(0, user.find('@'));
    std::lock_guard<std::mutex> lock(sb.mutex);
    auto it = sb.users.find(user);
    if (it == sb.users.end()) {
        sb.Post([this, callId] { impl_->calls->OnCallStateChange(callId, 7, 404, "Not Found"); });
        return;
    }
    SipEngine* callee = it->second;
    int remote = ++sb.next_id;
    sb.owner[remote] = callee;
    sb.peers[callId] = {callee, remote};
    sb.peers[remote] = {this, callId};
    std::string from = "sip:" + impl_->user + "@127.0.0.1";
    std::string name = displayName ? displayName : "";
    sb.Post([callee, remote, from, name, uri, offer] {
        callee->impl_->calls->OnIncomingCall(1, remote, name.c_str(), from.c_str(), uri.c_str());
        callee->impl_->calls->OnCallOffer(remote, offer.c_str(), true, true);
    });
}

void SipEngine::Accept(int callId, const char* sdp, const char*, bool, bool, int) {
    Switchboard& sb = Switchboard::Get();
    std::string answer(sdp ? sdp : "");
    std::lock_guard<std::mutex> lock(sb.mutex);
    auto it = sb.peers.find(callId);
    if (it == sb.peers.end()) return;
    auto other = it->second;
    sb.Post([this, callId, other, answer] {
        other.first->impl_->calls->OnCallAnswer(other.second, answer.c_str(), true, true);
        other.first->impl_->calls->OnCallStateChange(other.second, 6, 200, "OK");
        impl_->calls->OnCallStateChange(callId, 6, 200, "OK");
    });
}

void SipEngine::Reject(int callId, int code) {
    Switchboard& sb = Switchboard::Get();
    std::lock_guard<std::mutex> lock(sb.mutex);
    auto it = sb.peers.find(callId);
    if (it != sb.peers.end()) {
        auto other = it->second;
        sb.peers.erase(other.second);
        sb.peers.erase(it);
        sb.Post([other, code] {
            other.first->impl_->calls->OnCallStateChange(other.second, 3, code, "Rejected");
            other.first->impl_->calls->OnCallStateChange(other.second, 7, code, "Rejected");
        });
    }
    sb.Post([this, callId, code] { impl_->calls->OnCallStateChange(callId, 7, code, "Rejected"); });
}

void SipEngine::Hangup(int callId) {
    Switchboard& sb = Switchboard::Get();
    std::lock_guard<std::mutex> lock(sb.mutex);
    auto it = sb.peers.find(callId);
    if (it != sb.peers.end()) {
        auto other = it->second;
        sb.peers.erase(other.second);
        sb.peers.erase(it);
        sb.Post(
            [other] { other.first->impl_->calls->OnCallStateChange(other.second, 7, 200, "BYE"); });
    }
    sb.Post([this, callId] { impl_->calls->OnCallStateChange(callId, 7, 200, "BYE"); });
}

void SipEngine::UpdateMediaState(int, bool, const char*, bool, bool) {}
