#include "fake_sip.h"

#include <mutex>
#include <string>

using zarnrtc::fake::logAppend;
using zarnrtc::fake::text;

namespace {
std::mutex engines_mutex;
std::vector<zarnrtc::fake::SipEngineState*> engines;

std::string b(bool v) {
    return v ? "true" : "false";
}
}  // namespace

class SipEngineImpl {
  public:
    zarnrtc::fake::SipEngineState state;
};

namespace zarnrtc {
namespace fake {

SipConfig& sipConfig() {
    static SipConfig config;
    return config;
}

SipEngineState* lastSipEngine() {
    std::lock_guard<std::mutex> lock(engines_mutex);
    return engines.empty() ? nullptr : engines.back();
}

void resetSip() {
    sipConfig() = SipConfig();
}

}  // namespace fake
}  // namespace zarnrtc

SipEngine::SipEngine(int localPort) : impl_(new SipEngineImpl) {
    impl_->state.localPort = localPort;
    {
        std::lock_guard<std::mutex> lock(engines_mutex);
        engines.push_back(&impl_->state);
    }
    logAppend("SipEngine(" + std::to_string(localPort) + ")");
}

SipEngine::~SipEngine() {
    {
        std::lock_guard<std::mutex> lock(engines_mutex);
        for (auto it = engines.begin(); it != engines.end(); ++it) {
            if (*it == &impl_->state) {
                engines.erase(it);
                break;
            }
        }
    }
    logAppend("~SipEngine");
    delete impl_;
}

bool SipEngine::Initialize() {
    logAppend("Initialize");
    return true;
}
bool SipEngine::startSipEngine() {
    logAppend("startSipEngine");
    return true;
}
void SipEngine::stopSipEngine() {
    logAppend("stopSipEngine");
}
void SipEngine::Terminate() {
    logAppend("Terminate");
}

void SipEngine::RegisterRegistrationDelegate(RegistrationStateDelegate* delegate) {
    impl_->state.registration = delegate;
    logAppend("RegisterRegistrationDelegate");
}

void SipEngine::RegisterCallStateDelegate(CallStateDelegate* delegate) {
    impl_->state.calls = delegate;
    logAppend("RegisterCallStateDelegate");
}

int SipEngine::MakeRegister(const char* username, const char* authName, const char* password,
                            const char* server, const char* proxy, const char* transport,
                            int expires, const char* displayName, bool useIPv6) {
    logAppend("MakeRegister(" + text(username) + "," + text(authName) + "," + text(password) + "," +
              text(server) + "," + text(proxy) + "," + text(transport) + "," +
              std::to_string(expires) + "," + text(displayName) + "," + b(useIPv6) + ")");
    return zarnrtc::fake::sipConfig().nextAccountId++;
}

void SipEngine::MakeDeRegister(int accId) {
    logAppend("MakeDeRegister(" + std::to_string(accId) + ")");
}

int SipEngine::CreateCall() {
    auto& config = zarnrtc::fake::sipConfig();
    int id;
    if (!config.callIds.empty()) {
        id = config.callIds.front();
        config.callIds.erase(config.callIds.begin());
    } else {
        id = config.forceCallId ? config.forcedCallId : config.nextCallId++;
    }
    logAppend("CreateCall=" + std::to_string(id));
    return id;
}

void SipEngine::MakeCall(int callId, const char* calleeUri, const char* displayName,
                         const char* deviceType, const char* sdp, int mediaResolution) {
    logAppend("MakeCall(" + std::to_string(callId) + "," + text(calleeUri) + "," +
              text(displayName) + "," + text(deviceType) + "," + text(sdp) + "," +
              std::to_string(mediaResolution) + ")");
}

void SipEngine::Accept(int callId, const char* sdp, const char* deviceType, bool sendAudio,
                       bool sendVideo, int mediaResolution) {
    logAppend("Accept(" + std::to_string(callId) + "," + text(sdp) + "," + text(deviceType) + "," +
              b(sendAudio) + "," + b(sendVideo) + "," + std::to_string(mediaResolution) + ")");
}

void SipEngine::Reject(int callId, int code) {
    logAppend("Reject(" + std::to_string(callId) + "," + std::to_string(code) + ")");
}

void SipEngine::Hangup(int callId) {
    logAppend("Hangup(" + std::to_string(callId) + ")");
}

void SipEngine::UpdateMediaState(int callId, bool sendOffer, const char* sdp, bool sendAudio,
                                 bool sendVideo) {
    logAppend("UpdateMediaState(" + std::to_string(callId) + "," + b(sendOffer) + "," + text(sdp) +
              "," + b(sendAudio) + "," + b(sendVideo) + ")");
}
