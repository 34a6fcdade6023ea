#include "sipenginemanager.h"

#include "callimpl.h"
#include "nulltext.h"

namespace zarnrtc {

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
        std::lock_guard<std::mutex> lock(call_map_mutex);
        mCallMap.clear();
    }
    delete current_account;
    current_account = nullptr;
    for (Account* a : retiredAccounts) delete a;
    retiredAccounts.clear();
    capturer = nullptr;
    rtcPeerConnectionFactory = nullptr;
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
}

void SipEngineManager::unregisterCall(Call* call) {
    std::lock_guard<std::mutex> lock(call_map_mutex);
    if (mCallMap.empty()) return;
    int id = call->getCallId();
    auto it = mCallMap.find(id);
    if (it != mCallMap.end() && id > 0) mCallMap.erase(it);
    if (mCallMap.empty()) {
        stoplocalVideoSource();
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
}

size_t SipEngineManager::callCount() {
    std::lock_guard<std::mutex> lock(call_map_mutex);
    return mCallMap.size();
}

std::vector<std::pair<int, Call*>> SipEngineManager::snapshot() {
    std::lock_guard<std::mutex> lock(call_map_mutex);
    return std::vector<std::pair<int, Call*>>(mCallMap.begin(), mCallMap.end());
}

Call* SipEngineManager::lookup(int callId, bool* registryEmpty) {
    std::lock_guard<std::mutex> lock(call_map_mutex);
    *registryEmpty = mCallMap.empty();
    Call* found = nullptr;
    for (const auto& entry : mCallMap) {
        if (entry.first == callId) found = entry.second;
    }
    return found;
}

Call* SipEngineManager::takeHungUp(int callId) {
    std::lock_guard<std::mutex> lock(hungUpMutex);
    for (auto it = hungUpCalls.begin(); it != hungUpCalls.end(); ++it) {
        if ((*it)->getCallId() == callId) {
            Call* c = *it;
            hungUpCalls.erase(it);
            return c;
        }
    }
    return nullptr;
}

void SipEngineManager::forgetHungUp(Call* call) {
    std::lock_guard<std::mutex> lock(hungUpMutex);
    hungUpCalls.remove(call);
}

// ---- Account ----

int SipEngineManager::registerAccount(const char* serverIp, const char* username,
                                      const char* password, const char* displayname) {
    if (!sipEngine) return -1;
    int accId = sipEngine->MakeRegister(username, username, password, serverIp, serverIp, "TCP",
                                        600, displayname, false);
    Account* account = new Account();
    account->setSipEngineManager(this);
    account->setAccId(accId);
    // The replaced record may still be in use on the engine's thread: retire it
    // and free it with the manager.
    if (current_account) retiredAccounts.push_back(current_account);
    current_account = account;
    return accId;
}

void SipEngineManager::unregisterSipAccount(int accId) {
    if (current_account && current_account->getAccId() == accId && sipEngine) {
        sipEngine->MakeDeRegister(accId);
        delete current_account;
        current_account = nullptr;
    }
}

void SipEngineManager::OnRegistrationProgress(int accId) {
    if (current_account) current_account->setRegistrationState(0, 0, "Progress");
    if (registrationStateObserver)
        registrationStateObserver->onRegistrationState(accId, 0, nullptr);
}

void SipEngineManager::OnRegistrationSuccess(int accId) {
    if (current_account) current_account->setRegistrationState(1, 1, "Success");
    if (registrationStateObserver)
        registrationStateObserver->onRegistrationState(accId, 1, nullptr);
}

void SipEngineManager::OnRegistrationClear(int accId) {
    if (current_account) current_account->setRegistrationState(2, 2, "Clear");
    if (registrationStateObserver)
        registrationStateObserver->onRegistrationState(accId, 2, nullptr);
}

void SipEngineManager::OnRegistrationFailed(int accId, int, const char* reason) {
    if (current_account) current_account->setRegistrationState(3, 3, textOf(reason));
    if (registrationStateObserver) registrationStateObserver->onRegistrationState(accId, 3, reason);
}

void SipEngineManager::onMessage(const char*, const char* message) {
    if (registrationStateObserver) registrationStateObserver->onMessage(message);
}

// ---- Call control ----

Call* SipEngineManager::call(const char* calleeUri, CallParams callParams) {
    if (!sipEngine) {
        current_call = nullptr;
        return nullptr;
    }
    int callId = sipEngine->CreateCall();
    // Ids of 0 or less never leave the registry, and a second call under a live id
    // could never be reached: no call is made for either.
    if (callId <= 0 || isRegistered(callId)) {
        current_call = nullptr;
        return nullptr;
    }
    CallImpl* c = new CallImpl(callId, this);
    c->makeCall(calleeUri, callParams);
    current_call = c;
    return c;
}

void SipEngineManager::earlyAnswer(int callId, CallParams callParams) {
    // An early answer is a full answer by design.
    answer(callId, callParams);
}

void SipEngineManager::answer(int callId, CallParams callParams) {
    bool empty = false;
    Call* c = lookup(callId, &empty);
    if (empty) return;
    if (c) c->makeAnswer(callParams);
    current_call = c;
}

void SipEngineManager::nativeCall(int callId, const char* calleeUri, const char* displayName,
                                  const char* sdp, int mediaResolution) {
    if (sipEngine)
        sipEngine->MakeCall(callId, calleeUri, displayName, "dev_indoor", sdp, mediaResolution);
}

void SipEngineManager::nativeAnswer(int callId, const char* answersdp, bool sendAudio,
                                    bool sendVideo, int mediaResolution) {
    if (sipEngine)
        sipEngine->Accept(callId, answersdp, "dev_indoor", sendAudio, sendVideo, mediaResolution);
}

void SipEngineManager::reject(int callId, int code) {
    if (sipEngine) sipEngine->Reject(callId, code);
}

void SipEngineManager::hangup(int callId, const char*) {
    bool empty = false;
    Call* c = lookup(callId, &empty);
    if (empty || !c) return;
    c->setSelfHangup(true);
    c->updateCallState(kHangup, 3);
    {
        // Kept until the engine reports the end of this call, then reclaimed silently.
        std::lock_guard<std::mutex> lock(hungUpMutex);
        hungUpCalls.push_back(c);
    }
    if (sipEngine) sipEngine->Hangup(callId);
    c->closeSip();
}

void SipEngineManager::reinvite(int callId, const char* sdp) {
    if (sipEngine) sipEngine->UpdateMediaState(callId, true, sdp, true, true);
}

void SipEngineManager::OnIncomingCall(int, int callId, const char*, const char*, const char*) {
    if (callId <= 0 || isRegistered(callId)) return;  // could never be reached or freed
    current_call = new CallImpl(callId, this);
}

void SipEngineManager::OnCallStateChange(int callId, int state, int reason, const char*) {
    bool empty = false;
    Call* c = lookup(callId, &empty);
    if (empty || !c) {
        if (state == kHangup) {
            // A call hung up locally: reclaim it without telling anyone.
            if (Call* old = takeHungUp(callId)) {
                old->closeWebRTC();
                delete old;
            }
            return;
        }
        if (empty) return;
        if (callStateObserver) callStateObserver->onCallStateChange(callId, state, reason);
        return;
    }
    c->updateCallState(state, reason);
    if (state != kHangup) {
        if (callStateObserver) callStateObserver->onCallStateChange(callId, state, reason);
        return;
    }
    bool self = c->selfHangup();
    if (self) forgetHungUp(c);
    c->closeWebRTC();
    c->closeSip();
    delete c;
    if (!self && callStateObserver) callStateObserver->onCallStateChange(callId, kHangup, reason);
}

void SipEngineManager::OnCallOffer(int callId, const char* sdp, bool, bool) {
    bool empty = false;
    Call* c = lookup(callId, &empty);
    if (empty) return;
    if (c) c->onCallOffer(sdp);
    if (callStateObserver) callStateObserver->onIncomingCall(callId, nullptr, nullptr);
}

void SipEngineManager::OnCallAnswer(int callId, const char* sdp, bool, bool) {
    bool empty = false;
    Call* c = lookup(callId, &empty);
    if (c) c->onCallAnswer(sdp);
}

void SipEngineManager::OnEarlyMediaSdp(int callId, const char* sdp) {
    bool empty = false;
    Call* c = lookup(callId, &empty);
    if (c) c->onEarlyMediaSdp(sdp);
}

// DTMF, INFO and media-state events are dropped on purpose.
void SipEngineManager::OnDtmfEvent(int, int, int, bool) {}
void SipEngineManager::OnInfoEvent(int, const char*) {}
void SipEngineManager::OnMediaStateChange(int, const char*, bool, bool) {}

// ---- Media factory and local tracks ----

scoped_refptr<libwebrtc::RTCPeerConnectionFactory> SipEngineManager::getRtcPeerConnectionFactory() {
    return rtcPeerConnectionFactory;
}

scoped_refptr<libwebrtc::RTCPeerConnection> SipEngineManager::createRtcPeerConnection(
    const libwebrtc::RTCConfiguration& configuration,
    scoped_refptr<libwebrtc::RTCMediaConstraints> constraints) {
    if (!rtcPeerConnectionFactory)
        rtcPeerConnectionFactory = libwebrtc::LibWebRTC::CreateRTCPeerConnectionFactory();
    if (!rtcPeerConnectionFactory) return nullptr;
    return rtcPeerConnectionFactory->Create(configuration, constraints);
}

scoped_refptr<libwebrtc::RTCMediaStream> SipEngineManager::createStream(const char* stream_id) {
    if (!rtcPeerConnectionFactory) return nullptr;
    return rtcPeerConnectionFactory->CreateStream(stream_id);
}

scoped_refptr<libwebrtc::RTCAudioTrack> SipEngineManager::createAudioTrack(const char* track_id,
                                                                           uint16_t, uint16_t) {
    if (!rtcPeerConnectionFactory) return nullptr;
    scoped_refptr<libwebrtc::RTCAudioSource> source =
        rtcPeerConnectionFactory->CreateAudioSource(track_id);
    return rtcPeerConnectionFactory->CreateAudioTrack(source, track_id);
}

scoped_refptr<libwebrtc::RTCVideoTrack> SipEngineManager::createVideoTrack(
    const char* track_id, scoped_refptr<libwebrtc::RTCMediaConstraints> constraints, bool,
    const char* deviceName, uint32_t vdideoDeviceIndex, int videoWidth, int videoHeight,
    int videoFps) {
    if (!rtcPeerConnectionFactory) return nullptr;
    if (!capturer) {
        scoped_refptr<libwebrtc::RTCVideoDevice> device =
            rtcPeerConnectionFactory->GetVideoDevice();
        if (device)
            capturer =
                device->Create(deviceName, vdideoDeviceIndex, videoWidth, videoHeight, videoFps);
    }
    scoped_refptr<libwebrtc::RTCVideoSource> source =
        rtcPeerConnectionFactory->CreateVideoSource(capturer, track_id, constraints);
    return rtcPeerConnectionFactory->CreateVideoTrack(source, track_id);
}

scoped_refptr<libwebrtc::RTCAudioTrack> SipEngineManager::getAudioTrack(uint16_t) {
    return createAudioTrack("audio_label", 0, 0);
}

scoped_refptr<libwebrtc::RTCVideoTrack> SipEngineManager::getVideoTrack(
    bool screenShare, uint32_t index, const char* strNameUTF8, int videoWidth, int videoHeight,
    int videoFps) {
    if (!rtcPeerConnectionFactory) return nullptr;
    scoped_refptr<libwebrtc::RTCVideoDevice> device = rtcPeerConnectionFactory->GetVideoDevice();
    if (!device) return nullptr;
    scoped_refptr<libwebrtc::RTCVideoCapturer> own;
    if (screenShare)
        own = device->CreateScreenCapture(30, 0);
    else
        own = device->Create(strNameUTF8, index, videoWidth, videoHeight, videoFps);
    scoped_refptr<libwebrtc::RTCVideoSource> source =
        rtcPeerConnectionFactory->CreateVideoSource(own, "video_label", nullptr);
    return rtcPeerConnectionFactory->CreateVideoTrack(source, "video_label");
}

void SipEngineManager::stoplocalVideoSource() {
    capturer = nullptr;
}

// There is no shared audio object to stop.
void SipEngineManager::stoplocalAudioSource() {}

// ---- Stream injection and video set-up ----

void SipEngineManager::setupLocalVideo(int callId, VideoSink* videoSink) {
    bool empty = false;
    if (Call* c = lookup(callId, &empty)) c->setLocalVideoRender(videoSink);
}

void SipEngineManager::setupRemoteVideo(int callId, VideoSink* videoSink) {
    bool empty = false;
    if (Call* c = lookup(callId, &empty)) c->setRemoteVideoRender(videoSink);
}

void SipEngineManager::sendVideoPacket(int callId, const uint8_t* packet, int len,
                                       uint8_t payloadType, uint32_t timeStamp) {
    bool empty = false;
    if (Call* c = lookup(callId, &empty))
        c->sendStreamPacket(true, payloadType, timeStamp, packet, len);
}

void SipEngineManager::audioPlay(int callId, const char* fileName) {
    bool empty = false;
    if (Call* c = lookup(callId, &empty)) c->audioPlay(fileName);
}

void SipEngineManager::flowStream() {
    for (const auto& entry : snapshot()) {
        if (entry.second) entry.second->openflowStream();
    }
}

void SipEngineManager::inlineflowStream(bool video, int selfCallId, uint8_t payloadType,
                                        uint32_t timeStamp, const uint8_t* packet, int len) {
    for (const auto& entry : snapshot()) {
        if (entry.first == selfCallId || !entry.second) continue;
        entry.second->sendStreamPacket(video, payloadType, timeStamp, packet, len);
    }
}

void SipEngineManager::inlineSendRtcp(int selfCallId, bool pli) {
    for (const auto& entry : snapshot()) {
        if (entry.first == selfCallId || !entry.second) continue;
        entry.second->sendRtcp(pli);
    }
}

void SipEngineManager::onRemoteVideoReady(int callId) {
    if (callStreamObserver) callStreamObserver->onRemoteVideoReady(callId);
}

}  // namespace zarnrtc
