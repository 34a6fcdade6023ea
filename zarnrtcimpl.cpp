#include "zarnrtcimpl.h"

#include "sipenginemanager.h"

namespace zarnrtc {

ZarnRtcImpl::ZarnRtcImpl()
    : mSipEngineManager(new SipEngineManager()),
      mIRtcEngineEventHandler(nullptr),
      current_callId(-1),
      isCallForward(false) {
    localDeviceType = "in_door";
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
    Call* c = mSipEngineManager->call(calleeUri, params);
    if (!c) return -1;
    current_callId = c->getCallId();
    return c->getCallId();
}

int ZarnRtcImpl::callF(const char* callForwardUser, bool initVideo) {
    CallParams params;
    params.setEnableVideo(initVideo);
    if (!mSipEngineManager) return -1;
    Call* c = mSipEngineManager->call(callForwardUser, params);
    return c ? c->getCallId() : -1;
}

void ZarnRtcImpl::callForward(std::list<const char*> callForwardUsers, const char*, bool, bool, int,
                              int, int, int, const char*) {
    if (callForwardUsers.empty()) return;
    isCallForward = true;
    for (const char* target : callForwardUsers) {
        int id = callF(target, true);
        if (id < 1) continue;
        // Keys are texts; a null target cannot be one and is not tracked.
        if (!target) continue;
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
    mSipEngineManager->hangup(callId, "NORMAL_CLEARING");
    if (isCallForward && !callForwardIdMap.empty()) {
        for (auto it = callForwardIdMap.begin(); it != callForwardIdMap.end();) {
            int id = it->second;
            if (id > 0) {
                it = callForwardIdMap.erase(it);
                if (id != callId) mSipEngineManager->hangup(id, "NORMAL_CLEARING");
            } else {
                ++it;
            }
        }
        isCallForward = false;
    }
    // Asked twice on purpose; the manager ignores an id it no longer knows.
    mSipEngineManager->hangup(callId, "NORMAL_CLEARING");
    return 0;
}

void ZarnRtcImpl::setZarnRtcEvent(IRtcEngineEventHandler* iRtcEngineEventHandler) {
    mIRtcEngineEventHandler = iRtcEngineEventHandler;
}

void ZarnRtcImpl::flowStream() {
    if (mSipEngineManager) mSipEngineManager->flowStream();
}

void ZarnRtcImpl::sendVideoPacket(const uint8_t* packet, int len, uint8_t payloadType,
                                  uint32_t timeStamp) {
    if (current_callId > 0 && mSipEngineManager)
        mSipEngineManager->sendVideoPacket(current_callId, packet, len, payloadType, timeStamp);
    if (!callForwardIdMap.empty()) {
        for (const auto& entry : callForwardIdMap) {
            if (entry.second > 0 && mSipEngineManager)
                mSipEngineManager->sendVideoPacket(entry.second, packet, len, payloadType,
                                                   timeStamp);
        }
    }
}

void ZarnRtcImpl::onRegistrationState(int accId, int code, const char* reason) {
    IRtcEngineEventHandler* handler = mIRtcEngineEventHandler;
    if (handler) handler->onRegistrationState(accId, code, reason);
}

// Messages are dropped here by design.
void ZarnRtcImpl::onMessage(const char*) {}

void ZarnRtcImpl::onIncomingCall(int callId, const char* callerDisplayName, const char* callerUri) {
    IRtcEngineEventHandler* handler = mIRtcEngineEventHandler;
    if (handler) handler->onIncomingCall(callId, callerDisplayName, callerUri);
}

void ZarnRtcImpl::onCallStateChange(int callId, int stateCode, int reasonCode) {
    if (stateCode == kAnswered && isCallForward) {
        // The first call to answer wins the forwarding attempt.
        if (mSipEngineManager) {
            for (auto it = callForwardIdMap.begin(); it != callForwardIdMap.end();) {
                int id = it->second;
                if (id != callId && id > 0) {
                    it = callForwardIdMap.erase(it);
                    mSipEngineManager->hangup(id, "callForwardCancel");
                } else {
                    ++it;
                }
            }
            if (current_callId != callId) {
                if (current_callId > 0)
                    mSipEngineManager->hangup(current_callId, "callForwardCancel");
                current_callId = callId;
            }
        }
        isCallForward = false;
    }
    IRtcEngineEventHandler* handler = mIRtcEngineEventHandler;
    if (handler) handler->onCallStateChange(callId, stateCode, reasonCode);
}

void ZarnRtcImpl::onLocalVideoReady(int callId) {
    IRtcEngineEventHandler* handler = mIRtcEngineEventHandler;
    if (handler) handler->onLocalVideoReady(callId);
}

void ZarnRtcImpl::onRemoteVideoReady(int callId) {
    IRtcEngineEventHandler* handler = mIRtcEngineEventHandler;
    if (handler) handler->onRemoteVideoReady(callId);
}

void ZarnRtcImpl::onUpdatedByLocal(int callId, bool video) {
    IRtcEngineEventHandler* handler = mIRtcEngineEventHandler;
    if (handler) handler->onUpdatedByLocal(callId, video);
}

void ZarnRtcImpl::onUpdatedByRemote(int callId, bool video) {
    IRtcEngineEventHandler* handler = mIRtcEngineEventHandler;
    if (handler) handler->onUpdatedByRemote(callId, video);
}

void ZarnRtcImpl::setupLocalVideo(int callId, VideoSink* videoSink) {
    if (mSipEngineManager) mSipEngineManager->setupLocalVideo(callId, videoSink);
}

void ZarnRtcImpl::setupRemoteVideo(int callId, VideoSink* videoSink) {
    if (mSipEngineManager) mSipEngineManager->setupRemoteVideo(callId, videoSink);
}

void ZarnRtcImpl::audioPlay(const char* fileName) {
    if (mSipEngineManager) mSipEngineManager->audioPlay(current_callId, fileName);
}

}  // namespace zarnrtc
