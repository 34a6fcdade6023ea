#include "zarnrtcimpl.h"

#include <mutex>
#include <vector>

#include "sdkconstants.h"
#include "sipenginemanager.h"

namespace zarnrtc {

namespace {
// Guards the facade's handler, current_callId, isCallForward and callForwardIdMap:
// the application's thread and the SIP engine's thread (forwarding winner) both
// write them. Never held while the manager, an engine or the application runs.
std::mutex facadeMutex;
}  // namespace

ZarnRtcImpl::ZarnRtcImpl()
    : mSipEngineManager(new SipEngineManager()),
      mIRtcEngineEventHandler(nullptr),
      current_callId(-1),
      isCallForward(false) {
    localDeviceType = kFacadeDeviceType;
    mSipEngineManager->setRegistrationObserver(this);
    mSipEngineManager->setCallStateObserver(this);
    mSipEngineManager->setCallStreamObserver(this);
}

// The manager, its SIP engine and the media factory outlive the facade.
ZarnRtcImpl::~ZarnRtcImpl() {}

int ZarnRtcImpl::setRecordingDevice(const char*) {
    return 0;
}
int ZarnRtcImpl::setPlayoutDevice(const char*) {
    return 0;
}
int ZarnRtcImpl::setVideoDevice(const char*) {
    return 0;
}

int ZarnRtcImpl::registerAccount(const char* serverIp, const char* username, const char* password,
                                 const char* displayname) {
    if (!mSipEngineManager) return -1;
    return mSipEngineManager->registerAccount(serverIp, username, password, displayname);
}

int ZarnRtcImpl::call(const char* calleeUri) {
    CallParams params;
    if (!mSipEngineManager) return -1;
    int id = mSipEngineManager->placeCall(calleeUri, params);
    if (id < 0) return -1;
    std::lock_guard<std::mutex> lock(facadeMutex);
    current_callId = id;
    return id;
}

int ZarnRtcImpl::callF(const char* callForwardUser, bool initVideo) {
    CallParams params;
    params.setEnableVideo(initVideo);
    if (!mSipEngineManager) return -1;
    return mSipEngineManager->placeCall(callForwardUser, params);
}

void ZarnRtcImpl::callForward(std::list<const char*> callForwardUsers, const char*, bool, bool, int,
                              int, int, int, const char*) {
    if (callForwardUsers.empty()) return;
    {
        std::lock_guard<std::mutex> lock(facadeMutex);
        isCallForward = true;
    }
    for (const char* target : callForwardUsers) {
        int id = callF(target, true);
        if (id < 1) continue;
        // Keys are texts; a null target cannot be one and is not tracked.
        if (!target) continue;
        std::lock_guard<std::mutex> lock(facadeMutex);
        callForwardIdMap.emplace(target, id);  // an existing key keeps its call
    }
}

int ZarnRtcImpl::earlyAnswer(int callId) {
    if (!mSipEngineManager) return 0;
    CallParams params;
    mSipEngineManager->earlyAnswer(callId, params);
    return 0;
}

int ZarnRtcImpl::answer(int callId) {
    if (!mSipEngineManager) return 0;
    CallParams params;
    mSipEngineManager->answer(callId, params);
    return 0;
}

int ZarnRtcImpl::hangup(int callId) {
    if (!mSipEngineManager) return 0;
    mSipEngineManager->hangup(callId, kHangupNormal);
    std::vector<int> others;
    {
        std::lock_guard<std::mutex> lock(facadeMutex);
        if (isCallForward && !callForwardIdMap.empty()) {
            for (auto it = callForwardIdMap.begin(); it != callForwardIdMap.end();) {
                int id = it->second;
                if (id > 0) {
                    it = callForwardIdMap.erase(it);
                    if (id != callId) others.push_back(id);
                } else {
                    ++it;
                }
            }
            isCallForward = false;
        }
    }
    for (int id : others) mSipEngineManager->hangup(id, kHangupNormal);
    // Asked twice on purpose; the manager ignores an id it no longer knows.
    mSipEngineManager->hangup(callId, kHangupNormal);
    return 0;
}

void ZarnRtcImpl::setZarnRtcEvent(IRtcEngineEventHandler* iRtcEngineEventHandler) {
    std::lock_guard<std::mutex> lock(facadeMutex);
    mIRtcEngineEventHandler = iRtcEngineEventHandler;
}

IRtcEngineEventHandler* ZarnRtcImpl::handler() {
    std::lock_guard<std::mutex> lock(facadeMutex);
    return mIRtcEngineEventHandler;
}

void ZarnRtcImpl::flowStream() {
    if (mSipEngineManager) mSipEngineManager->flowStream();
}

void ZarnRtcImpl::sendVideoPacket(const uint8_t* packet, int len, uint8_t payloadType,
                                  uint32_t timeStamp) {
    if (!mSipEngineManager) return;
    int current = -1;
    std::vector<int> forwarded;
    {
        std::lock_guard<std::mutex> lock(facadeMutex);
        current = current_callId;
        for (const auto& entry : callForwardIdMap)
            if (entry.second > 0) forwarded.push_back(entry.second);
    }
    if (current > 0)
        mSipEngineManager->sendVideoPacket(current, packet, len, payloadType, timeStamp);
    for (int id : forwarded)
        mSipEngineManager->sendVideoPacket(id, packet, len, payloadType, timeStamp);
}

void ZarnRtcImpl::onRegistrationState(int accId, int code, const char* reason) {
    if (IRtcEngineEventHandler* h = handler()) h->onRegistrationState(accId, code, reason);
}

// Messages are dropped here by design.
void ZarnRtcImpl::onMessage(const char*) {}

void ZarnRtcImpl::onIncomingCall(int callId, const char* callerDisplayName, const char* callerUri) {
    if (IRtcEngineEventHandler* h = handler())
        h->onIncomingCall(callId, callerDisplayName, callerUri);
}

void ZarnRtcImpl::onCallStateChange(int callId, int stateCode, int reasonCode) {
    std::vector<int> cancelled;
    {
        std::lock_guard<std::mutex> lock(facadeMutex);
        if (stateCode == kAnswered && isCallForward) {
            // The first call to answer wins the forwarding attempt.
            if (mSipEngineManager) {
                for (auto it = callForwardIdMap.begin(); it != callForwardIdMap.end();) {
                    int id = it->second;
                    if (id != callId && id > 0) {
                        it = callForwardIdMap.erase(it);
                        cancelled.push_back(id);
                    } else {
                        ++it;
                    }
                }
                if (current_callId != callId) {
                    if (current_callId > 0) cancelled.push_back(current_callId);
                    current_callId = callId;
                }
            }
            isCallForward = false;
        }
    }
    for (int id : cancelled) mSipEngineManager->hangup(id, kHangupForwardCancel);
    if (IRtcEngineEventHandler* h = handler()) h->onCallStateChange(callId, stateCode, reasonCode);
}

void ZarnRtcImpl::onLocalVideoReady(int callId) {
    if (IRtcEngineEventHandler* h = handler()) h->onLocalVideoReady(callId);
}

void ZarnRtcImpl::onRemoteVideoReady(int callId) {
    if (IRtcEngineEventHandler* h = handler()) h->onRemoteVideoReady(callId);
}

void ZarnRtcImpl::onUpdatedByLocal(int callId, bool video) {
    if (IRtcEngineEventHandler* h = handler()) h->onUpdatedByLocal(callId, video);
}

void ZarnRtcImpl::onUpdatedByRemote(int callId, bool video) {
    if (IRtcEngineEventHandler* h = handler()) h->onUpdatedByRemote(callId, video);
}

void ZarnRtcImpl::setupLocalVideo(int callId, VideoSink* videoSink) {
    if (mSipEngineManager) mSipEngineManager->setupLocalVideo(callId, videoSink);
}

void ZarnRtcImpl::setupRemoteVideo(int callId, VideoSink* videoSink) {
    if (mSipEngineManager) mSipEngineManager->setupRemoteVideo(callId, videoSink);
}

void ZarnRtcImpl::audioPlay(const char* fileName) {
    int current = -1;
    {
        std::lock_guard<std::mutex> lock(facadeMutex);
        current = current_callId;
    }
    if (mSipEngineManager) mSipEngineManager->audioPlay(current, fileName);
}

}  // namespace zarnrtc
