// The registry, call control and every path that reaches a call. Longer than our
// usual file: call holds are private to this file, so everything that takes one
// lives here.
#include "sipenginemanager.h"

#include <functional>
#include <memory>

#include "callimpl.h"
#include "sdkconstants.h"

namespace zarnrtc {

namespace {

// The life of one call, kept beside the registry (whose layout is fixed). The
// registry's entry is one owner; every operation on the call, from the application
// or from a SIP callback, takes a hold for its duration; the engine's end marks the
// call ended and leaves its teardown to whoever lets go last. With no operation
// running, that is the end itself, at the same moment as always.
struct Life {
    // Orders an operation's bookkeeping (state, self hang-up) against the end. Held
    // only around the call's own fields, never while an engine or the application
    // runs (recursive, so a helper that takes it may be reached with it held).
    std::recursive_mutex order;
    int holds = 0;
    bool ended = false;              // no new hold is given
    bool hungUp = false;             // the local hangup ran, so it runs once
    std::function<void()> teardown;  // left by the end for the last holder
};

// Lock order: call_map_mutex, then hungUpMutex, then livesMutex, then Life::order.
std::mutex livesMutex;
std::map<const Call*, std::shared_ptr<Life>> lives;
// Set by startCall: the call being made starts with its creator's hold, so the
// engine's end cannot free it before makeCall has returned.
thread_local bool creatorHold = false;

std::shared_ptr<Life> lifeOf(const Call* c) {
    std::lock_guard<std::mutex> lock(livesMutex);
    auto it = lives.find(c);
    return it == lives.end() ? nullptr : it->second;
}

// Callers make sure the call cannot be freed meanwhile (a registry or hung-up list
// lock, or a hold of their own).
bool hold(const Call* c) {
    std::shared_ptr<Life> life = lifeOf(c);
    if (!life) return false;
    std::lock_guard<std::recursive_mutex> lock(life->order);
    if (life->ended) return false;
    ++life->holds;
    return true;
}

void release(const Call* c) {
    std::shared_ptr<Life> life = lifeOf(c);
    if (!life) return;
    std::function<void()> teardown;
    {
        std::lock_guard<std::recursive_mutex> lock(life->order);
        if (--life->holds == 0) teardown.swap(life->teardown);
    }
    if (teardown) teardown();  // no lock held: it reaches the media engine
}

// A held call, let go at the end of the scope (or at reset()).
class Held {
  public:
    explicit Held(Call* c) : c_(c) {}
    ~Held() { reset(); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    void reset() {
        if (c_) release(c_);
        c_ = nullptr;
    }
    Call* get() const { return c_; }
    Call* operator->() const { return c_; }
    explicit operator bool() const { return c_ != nullptr; }

  private:
    Call* c_;
};

// A registry snapshot whose calls are held until it goes.
struct HeldSnapshot {
    std::vector<std::pair<int, Call*>> calls;
    ~HeldSnapshot() {
        for (const auto& entry : calls) release(entry.second);
    }
};

void setState(Call* c, int state, int reason) {
    std::shared_ptr<Life> life = lifeOf(c);
    std::lock_guard<std::recursive_mutex> lock(life->order);
    c->updateCallState(state, reason);
}

// Marks a held call hung up locally; false when that was done already.
bool markHungUp(Call* c) {
    std::shared_ptr<Life> life = lifeOf(c);
    std::lock_guard<std::recursive_mutex> lock(life->order);
    if (life->hungUp) return false;
    life->hungUp = true;
    c->setSelfHangup(true);
    c->updateCallState(kHangup, kLocalHangupReason);
    return true;
}

}  // namespace

using libwebrtc::scoped_refptr;

SipEngineManager::SipEngineManager()
    : sipEngine(nullptr),
      current_account(nullptr),
      current_call(nullptr),
      registrationStateObserver(nullptr),
      callStateObserver(nullptr),
      callStreamObserver(nullptr) {
    sipEngine = new SipEngine(0);
    sipEngine->RegisterRegistrationDelegate(this);
    sipEngine->RegisterCallStateDelegate(this);
    libwebrtc::LibWebRTC::Initialize();
    rtcPeerConnectionFactory = libwebrtc::LibWebRTC::CreateRTCPeerConnectionFactory();
    capturer = nullptr;
}

SipEngineManager::~SipEngineManager() {
    // The engine goes first so that no callback arrives while the rest is torn down.
    delete sipEngine;
    sipEngine = nullptr;
    // Calls hung up locally whose end never came: their media go while the factory
    // is still there.
    std::list<Call*> leftovers;
    {
        std::lock_guard<std::mutex> lock(hungUpMutex);
        leftovers.swap(hungUpCalls);
    }
    for (Call* c : leftovers) {
        c->closeWebRTC();
        delete c;
    }
    {
        // The registry's nodes only: the calls are not its to free.
        std::lock_guard<std::mutex> lock(call_map_mutex);
        mCallMap.clear();
    }
    std::string().swap(defaultAudioRecordingDeviceGuid);
    std::string().swap(defaultAudioPlayoutDeviceGuid);
    std::string().swap(defaultVideoDeviceGuid);
    // The camera belongs to the factory's media engine: it goes first.
    releaseMedia();
    // current_account stays: the manager never frees the account it registered.
    releaseRetiredAccounts();
}

// ---- Observers and delegates ----

void SipEngineManager::setRegistrationObserver(RegistrationStateObserver* observer) {
    registrationStateObserver = observer;
}

void SipEngineManager::setCallStateObserver(CallStateObserver* observer) {
    callStateObserver = observer;
}

void SipEngineManager::setCallStreamObserver(CallStreamObserver* observer) {
    callStreamObserver = observer;
}

void SipEngineManager::registerRegistrationDelegate(RegistrationStateDelegate* delegate) {
    if (sipEngine) sipEngine->RegisterRegistrationDelegate(delegate);
}

void SipEngineManager::registerCallStateDelegate(CallStateDelegate* callStateDelegate) {
    if (sipEngine) sipEngine->RegisterCallStateDelegate(callStateDelegate);
}

// ---- Registry ----

void SipEngineManager::registerCall(Call* call) {
    std::lock_guard<std::mutex> lock(call_map_mutex);
    mCallMap.emplace(call->getCallId(), call);  // an existing id keeps its call
    auto life = std::make_shared<Life>();
    life->holds = creatorHold ? 1 : 0;
    std::lock_guard<std::mutex> livesLock(livesMutex);
    lives[call] = life;
}

void SipEngineManager::unregisterCall(Call* call) {
    // Declared before the lock, so the camera is let go by the media engine only
    // once the registry is unlocked: no lock is held across an engine call.
    scoped_refptr<libwebrtc::RTCVideoCapturer> camera;
    std::lock_guard<std::mutex> lock(call_map_mutex);
    if (mCallMap.empty()) return;
    int id = call->getCallId();
    auto it = mCallMap.find(id);
    if (it != mCallMap.end() && id > 0) mCallMap.erase(it);
    if (mCallMap.empty()) {
        // The local video source stops, then the audio source, inside the lock.
        camera = takeCamera();
        stoplocalAudioSource();
    }
}

bool SipEngineManager::isRegistered(int callId) {
    {
        std::lock_guard<std::mutex> lock(call_map_mutex);
        if (mCallMap.count(callId) != 0) return true;
    }
    // A call hung up locally keeps its id until the engine reports its end.
    std::lock_guard<std::mutex> lock(hungUpMutex);
    for (Call* c : hungUpCalls)
        if (c->getCallId() == callId) return true;
    return false;
}

void SipEngineManager::dropStale(Call* call) {
    std::lock_guard<std::mutex> lock(call_map_mutex);
    for (auto it = mCallMap.begin(); it != mCallMap.end();) {
        if (it->second == call)
            it = mCallMap.erase(it);
        else
            ++it;
    }
    if (current_call == call) current_call = nullptr;
    std::lock_guard<std::mutex> livesLock(livesMutex);
    lives.erase(call);
}

size_t SipEngineManager::callCount() {
    std::lock_guard<std::mutex> lock(call_map_mutex);
    return mCallMap.size();
}

Call* SipEngineManager::currentCall() const {
    std::lock_guard<std::mutex> lock(const_cast<std::mutex&>(call_map_mutex));
    return current_call;
}

std::vector<std::pair<int, Call*>> SipEngineManager::snapshot() {
    std::lock_guard<std::mutex> lock(call_map_mutex);
    std::vector<std::pair<int, Call*>> held;
    for (const auto& entry : mCallMap)
        if (entry.second && hold(entry.second)) held.push_back(entry);
    return held;
}

Call* SipEngineManager::lookup(int callId, bool* registryEmpty) {
    std::lock_guard<std::mutex> lock(call_map_mutex);
    *registryEmpty = mCallMap.empty();
    auto it = mCallMap.find(callId);
    if (it == mCallMap.end() || !it->second) return nullptr;
    return hold(it->second) ? it->second : nullptr;
}

Call* SipEngineManager::takeHungUp(int callId) {
    std::lock_guard<std::mutex> lock(hungUpMutex);
    for (auto it = hungUpCalls.begin(); it != hungUpCalls.end(); ++it) {
        if ((*it)->getCallId() == callId) {
            Call* c = *it;
            hungUpCalls.erase(it);
            return hold(c) ? c : nullptr;
        }
    }
    return nullptr;
}

void SipEngineManager::forgetHungUp(Call* call) {
    std::lock_guard<std::mutex> lock(hungUpMutex);
    hungUpCalls.remove(call);
}

// Marks a held call ended: it gets no new hold, and the last holder tears it down.
void SipEngineManager::endCall(Call* c, int state, int reason, bool* self) {
    std::shared_ptr<Life> life = lifeOf(c);
    std::lock_guard<std::recursive_mutex> lock(life->order);
    life->ended = true;
    c->updateCallState(state, reason);
    *self = c->selfHangup();
    life->teardown = [this, c] {
        forgetHungUp(c);
        c->closeWebRTC();
        c->closeSip();
        delete c;
    };
}

// ---- Call control ----

Call* SipEngineManager::startCall(const char* calleeUri, CallParams callParams, int* callId) {
    *callId = sipEngine ? sipEngine->CreateCall() : -1;
    // Ids of 0 or less never leave the registry, and a second call under a live id
    // could never be reached: no call is made for either.
    if (!sipEngine || *callId <= 0 || isRegistered(*callId)) {
        *callId = -1;
        std::lock_guard<std::mutex> lock(call_map_mutex);
        current_call = nullptr;
        return nullptr;
    }
    creatorHold = true;
    CallImpl* c = new CallImpl(*callId, this);
    creatorHold = false;
    Held held(c);
    c->makeCall(calleeUri, callParams);
    std::lock_guard<std::mutex> lock(call_map_mutex);
    current_call = c;
    return c;  // let go after the lock: the engine's end may free it from now on
}

Call* SipEngineManager::call(const char* calleeUri, CallParams callParams) {
    int id = -1;
    return startCall(calleeUri, callParams, &id);
}

int SipEngineManager::placeCall(const char* calleeUri, CallParams callParams) {
    int id = -1;
    startCall(calleeUri, callParams, &id);
    return id;
}

void SipEngineManager::earlyAnswer(int callId, CallParams callParams) {
    // An early answer is a full answer by design.
    answer(callId, callParams);
}

void SipEngineManager::answer(int callId, CallParams callParams) {
    bool empty = false;
    Held c(lookup(callId, &empty));
    if (empty) return;
    if (c) c->makeAnswer(callParams);
    std::lock_guard<std::mutex> lock(call_map_mutex);
    current_call = c.get();
}

void SipEngineManager::nativeCall(int callId, const char* calleeUri, const char* displayName,
                                  const char* sdp, int mediaResolution) {
    if (sipEngine)
        sipEngine->MakeCall(callId, calleeUri, displayName, kLocalDeviceType, sdp, mediaResolution);
}

void SipEngineManager::nativeAnswer(int callId, const char* answersdp, bool sendAudio,
                                    bool sendVideo, int mediaResolution) {
    if (sipEngine)
        sipEngine->Accept(callId, answersdp, kLocalDeviceType, sendAudio, sendVideo,
                          mediaResolution);
}

void SipEngineManager::reject(int callId, int code) {
    if (sipEngine) sipEngine->Reject(callId, code);
}

void SipEngineManager::hangup(int callId, const char*) {
    bool empty = false;
    Held c(lookup(callId, &empty));
    // Two threads may hang up the same call (the application, and the forwarding
    // winner on the SIP thread): only the first does.
    if (!c || !markHungUp(c.get())) return;
    {
        // Kept until the engine reports the end of this call, then reclaimed silently.
        std::lock_guard<std::mutex> lock(hungUpMutex);
        hungUpCalls.push_back(c.get());
    }
    if (sipEngine) sipEngine->Hangup(callId);
    c->closeSip();
}

void SipEngineManager::reinvite(int callId, const char* sdp) {
    if (sipEngine) sipEngine->UpdateMediaState(callId, true, sdp, true, true);
}

void SipEngineManager::OnIncomingCall(int, int callId, const char*, const char*, const char*) {
    if (callId <= 0 || isRegistered(callId)) return;  // could never be reached or freed
    // Only this thread ends calls, so the new call needs no creator's hold.
    Call* c = new CallImpl(callId, this);
    std::lock_guard<std::mutex> lock(call_map_mutex);
    current_call = c;
}

void SipEngineManager::OnCallStateChange(int callId, int state, int reason, const char*) {
    bool empty = false;
    Held c(lookup(callId, &empty));
    if (!c) {
        if (state == kHangup) {
            // A call hung up locally: reclaim it without telling anyone.
            Held old(takeHungUp(callId));
            bool self = true;
            if (old) endCall(old.get(), state, reason, &self);
            return;
        }
        if (empty) return;
        if (callStateObserver) callStateObserver->onCallStateChange(callId, state, reason);
        return;
    }
    if (state != kHangup) {
        setState(c.get(), state, reason);
        c.reset();
        if (callStateObserver) callStateObserver->onCallStateChange(callId, state, reason);
        return;
    }
    bool self = false;
    endCall(c.get(), state, reason, &self);
    c.reset();  // freed here unless another thread is inside an operation on it
    if (!self && callStateObserver) callStateObserver->onCallStateChange(callId, kHangup, reason);
}

void SipEngineManager::OnCallOffer(int callId, const char* sdp, bool, bool) {
    bool empty = false;
    Held c(lookup(callId, &empty));
    if (empty) return;
    if (c) c->onCallOffer(sdp);
    c.reset();
    if (callStateObserver) callStateObserver->onIncomingCall(callId, nullptr, nullptr);
}

void SipEngineManager::OnCallAnswer(int callId, const char* sdp, bool, bool) {
    bool empty = false;
    Held c(lookup(callId, &empty));
    if (c) c->onCallAnswer(sdp);
}

void SipEngineManager::OnEarlyMediaSdp(int callId, const char* sdp) {
    bool empty = false;
    Held c(lookup(callId, &empty));
    if (c) c->onEarlyMediaSdp(sdp);
}

// DTMF, INFO and media-state events are dropped on purpose.
void SipEngineManager::OnDtmfEvent(int, int, int, bool) {}
void SipEngineManager::OnInfoEvent(int, const char*) {}
void SipEngineManager::OnMediaStateChange(int, const char*, bool, bool) {}

// ---- Stream injection and video set-up ----

void SipEngineManager::setupLocalVideo(int callId, VideoSink* videoSink) {
    bool empty = false;
    Held c(lookup(callId, &empty));
    if (c) c->setLocalVideoRender(videoSink);
}

void SipEngineManager::setupRemoteVideo(int callId, VideoSink* videoSink) {
    bool empty = false;
    Held c(lookup(callId, &empty));
    if (c) c->setRemoteVideoRender(videoSink);
}

void SipEngineManager::sendVideoPacket(int callId, const uint8_t* packet, int len,
                                       uint8_t payloadType, uint32_t timeStamp) {
    bool empty = false;
    Held c(lookup(callId, &empty));
    if (c) c->sendStreamPacket(true, payloadType, timeStamp, packet, len);
}

void SipEngineManager::audioPlay(int callId, const char* fileName) {
    bool empty = false;
    Held c(lookup(callId, &empty));
    if (c) c->audioPlay(fileName);
}

void SipEngineManager::flowStream() {
    HeldSnapshot held{snapshot()};
    for (const auto& entry : held.calls) entry.second->openflowStream();
}

void SipEngineManager::inlineflowStream(bool video, int selfCallId, uint8_t payloadType,
                                        uint32_t timeStamp, const uint8_t* packet, int len) {
    HeldSnapshot held{snapshot()};
    for (const auto& entry : held.calls) {
        if (entry.first == selfCallId) continue;
        entry.second->sendStreamPacket(video, payloadType, timeStamp, packet, len);
    }
}

void SipEngineManager::inlineSendRtcp(int selfCallId, bool pli) {
    HeldSnapshot held{snapshot()};
    for (const auto& entry : held.calls) {
        if (entry.first == selfCallId) continue;
        entry.second->sendRtcp(pli);
    }
}

void SipEngineManager::onRemoteVideoReady(int callId) {
    if (callStreamObserver) callStreamObserver->onRemoteVideoReady(callId);
}

}  // namespace zarnrtc
