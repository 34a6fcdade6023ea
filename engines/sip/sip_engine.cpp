// SipEngine: the exported face of one UserAgent.
#include "SipEngine.h"

#include "sip_text.h"
#include "status_codes.h"
#include "user_agent.h"

class SipEngineImpl {
  public:
    explicit SipEngineImpl(int localPort) : agent(new sipengine::UserAgent(localPort)) {}
    ~SipEngineImpl() { sipengine::UserAgent::destroy(agent); }
    sipengine::UserAgent* agent;
};

SipEngine::SipEngine(int localPort) : impl_(new SipEngineImpl(localPort)) {}

SipEngine::~SipEngine() {
    delete impl_;
}

// The agent starts in the constructor and stops in the destructor; these exist for
// callers written against engines that need explicit steps.
bool SipEngine::Initialize() {
    return true;
}
bool SipEngine::startSipEngine() {
    return true;
}
void SipEngine::stopSipEngine() {}
void SipEngine::Terminate() {}

void SipEngine::RegisterRegistrationDelegate(RegistrationStateDelegate* delegate) {
    impl_->agent->setRegistrationDelegate(delegate);
}

void SipEngine::RegisterCallStateDelegate(CallStateDelegate* delegate) {
    impl_->agent->setCallDelegate(delegate);
}

int SipEngine::MakeRegister(const char* username, const char* authName, const char* password,
                            const char* server, const char* proxy, const char* transport,
                            int expires, const char* displayName, bool /*useIPv6*/) {
    sipengine::AccountConfig cfg;
    cfg.user = sipengine::headerSafe(username);
    cfg.domain = sipengine::hostPortOf(server);
    // sips: or ;transport=tls on the server asks for TLS, whatever `transport` says.
    cfg.transport = sipengine::wantsTls(server) ? "tls" : sipengine::transportParam(transport);
    // The user part must not need escaping in a SIP URI.
    if (cfg.user.empty() || cfg.user.find_first_of(" \t@:;<>\"") != std::string::npos ||
        cfg.domain.empty() || cfg.transport.empty())
        return -1;
    cfg.authUser = authName && *authName ? sipengine::headerSafe(authName) : cfg.user;
    cfg.password = password ? password : "";
    cfg.proxy = sipengine::hostPortOf(proxy);
    if (cfg.proxy.empty()) cfg.proxy = cfg.domain;
    cfg.displayName = sipengine::headerSafe(displayName);
    cfg.expires = expires > 0 ? expires : sipengine::kDefaultExpiresSec;
    return impl_->agent->makeRegister(std::move(cfg));
}

void SipEngine::MakeDeRegister(int accId) {
    impl_->agent->makeDeRegister(accId);
}

int SipEngine::CreateCall() {
    return impl_->agent->createCall();
}

void SipEngine::MakeCall(int callId, const char* calleeUri, const char* displayName,
                         const char* deviceType, const char* sdp, int mediaResolution) {
    impl_->agent->makeCall(callId, calleeUri, displayName, deviceType, sdp, mediaResolution);
}

void SipEngine::Accept(int callId, const char* sdp, const char* deviceType, bool /*sendAudio*/,
                       bool /*sendVideo*/, int mediaResolution) {
    impl_->agent->accept(callId, sdp, deviceType, mediaResolution);
}

void SipEngine::Reject(int callId, int code) {
    impl_->agent->reject(callId, code);
}

void SipEngine::Hangup(int callId) {
    impl_->agent->hangup(callId);
}

void SipEngine::UpdateMediaState(int callId, bool /*sendOffer*/, const char* sdp,
                                 bool /*sendAudio*/, bool /*sendVideo*/) {
    impl_->agent->updateMedia(callId, sdp);
}
