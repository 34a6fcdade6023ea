// One SIP user agent: a thread running its own sofia-sip root and NUA stack. Every
// public operation is queued onto that thread; every delegate call is made from it.
#ifndef ZARNRTC_ENGINES_SIP_USER_AGENT_H
#define ZARNRTC_ENGINES_SIP_USER_AGENT_H

#include <atomic>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "CallStateDelegate.h"
#include "RegistrationStateDelegate.h"
#include "sofia.h"
#include "status_codes.h"
#include "trust.h"

namespace sipengine {

// What a NUA handle is bound to (the handle's magic).
struct HandleContext {
    enum class Kind { kAccount, kCall };
    explicit HandleContext(Kind k) : kind(k) {}
    virtual ~HandleContext() = default;
    const Kind kind;
    nua_handle_t* nh = nullptr;
};

struct AccountConfig {
    std::string user;
    std::string authUser;
    std::string password;
    std::string domain;     // host[:port] of the registrar, also the AoR's domain
    std::string proxy;      // host[:port] all requests are routed through
    std::string transport;  // "tcp", "udp" or "tls"
    std::string displayName;
    int expires = kDefaultExpiresSec;
};

// A server's URI for the account's transport: TLS as sips:, never a plain fallback.
inline std::string serverUri(const std::string& hostPort, const std::string& transport) {
    return transport == "tls" ? "sips:" + hostPort : "sip:" + hostPort + ";transport=" + transport;
}
inline std::string registrarUri(const AccountConfig& cfg) {
    return serverUri(cfg.domain, cfg.transport);
}
inline std::string firstHopUri(const AccountConfig& cfg) {
    return serverUri(cfg.proxy, cfg.transport);
}
// "host", "host:port", "[v6]" or "[v6]:port" (the forms hostPortOf() lets through).
void splitHostPort(const std::string& hostPort, int defaultPort, std::string* host, int* port);

inline std::string aorOf(const AccountConfig& cfg) {
    return "sip:" + cfg.user + "@" + cfg.domain;
}

struct Account : HandleContext {
    Account() : HandleContext(Kind::kAccount) {}
    int id = 0;
    AccountConfig config;
    bool wanted = true;                // false once MakeDeRegister asked to leave
    bool registered = false;           // last REGISTER succeeded
    bool inFlight = false;             // a REGISTER/un-REGISTER awaits its final response
    bool authTried = false;            // one digest retry per request
    bool tlsChecked = false;           // the server's certificate verified once
    bool probing = false;              // a TLS probe is on its way
    su_timer_t* watchTimer = nullptr;  // is the server back? (server_watch.cpp)
    int watchFd = -1;
    int backoffMs = 0;
    su_timer_t* retryTimer = nullptr;
    bool targetsStale = false;  // the server was lost: refresh calls once back
};

struct Call : HandleContext {
    Call() : HandleContext(Kind::kCall) {}
    int id = 0;
    int accountId = 0;  // whose credentials answer a challenge
    bool outgoing = false;
    bool answered = false;     // the dialog was confirmed (Answered reported)
    bool localAnswer = false;  // incoming: our 200 went out
    bool cancelling = false;   // outgoing: we sent CANCEL
    bool reinviting = false;   // our re-INVITE awaits its answer
    bool authTried = false;
    bool ended = false;  // Hangup reported: no more callbacks for this id
    // An outgoing INVITE as first sent, to send it again with credentials.
    std::string requestUri, from, to, route, headers;
    int lastState = -1;
    int lastStatus = 0;
    std::string lastEarlySdp;
    std::string localSdp;  // answers incoming re-INVITEs
    // The far end's description as the SDK got it (incoming: the offer; outgoing: the
    // answer, or the early description), by its link key: the media engine names an
    // unusable one so (media_watch.cpp).
    unsigned long long remoteKey = 0;
    unsigned long long earlyKey = 0;
    // Outgoing, plain offer: its ICE fragment names its variants in the link, sent in
    // turn when the callee refuses what it got (calls.cpp).
    std::string plainUfrag;
    int fallbacks = 0;                // variants of the plain offer sent after a refusal
    std::string remoteSetup;          // the far end's DTLS role in its last answer
    su_timer_t* ringTimer = nullptr;  // bounds the ringing (ring_bounds.cpp)
    int ringBoundS = 0;
    bool ringTimedOut = false;
    int endReason = 0;  // set when we end the call for a reason of our own
    std::string endText;
    bool refreshing = false;            // our target-refresh UPDATE awaits its answer
    bool refreshAgain = false;          // and another is due once it is answered
    bool byeSent = false;               // no refresh after our BYE
    su_timer_t* hangupTimer = nullptr;  // bounds a BYE queued behind that UPDATE
    ~Call() override {
        if (hangupTimer) su_timer_destroy(hangupTimer);
    }
};

class UserAgent {
  public:
    static constexpr size_t kMaxUnsentIds = 4096;
    explicit UserAgent(int localPort);
    ~UserAgent();

    // Destroys ua. From the agent's own thread (inside a callback) the shutdown
    // finishes on that thread after the callback returns.
    static void destroy(UserAgent* ua);

    void setRegistrationDelegate(RegistrationStateDelegate* d) { regDelegate_ = d; }
    void setCallDelegate(CallStateDelegate* d) { callDelegate_ = d; }

    int makeRegister(AccountConfig config);
    void makeDeRegister(int accId);
    int createCall();
    void makeCall(int callId, const char* callee, const char* displayName, const char* deviceType,
                  const char* sdp, int mediaResolution);
    void accept(int callId, const char* sdp, const char* deviceType, int mediaResolution);
    void reject(int callId, int code);
    void hangup(int callId);
    void updateMedia(int callId, const char* sdp);

  private:
    using Task = std::function<void()>;
    UserAgent(const UserAgent&) = delete;
    UserAgent& operator=(const UserAgent&) = delete;

    // Thread and queue (user_agent.cpp).
    void run(std::promise<void>* started);
    void post(Task task);
    void drainQueue();
    static int onWakeup(void* magic, su_wait_t* w, void* arg);

    // The stack: where it listens, TLS, the server probe (stack.cpp).
    bool createStack(const AccountConfig* first, std::string* why);
    bool ensureStack(const AccountConfig& cfg, std::string* why);
    void startTlsProbe(Account& acc);
    void onTlsProbeResult(int accId, const std::string& why);
    void joinProbes(bool all);

    // A lost server watched until it is back (server_watch.cpp).
    void startServerWatch(Account& acc);
    void stopServerWatch(Account& acc);
    static void onServerWatch(void* magic, su_timer_t* t, void* arg);

    // Dialog targets refreshed after a lost server is back (target_refresh.cpp).
    void markTargetsStale(Account& acc);
    void refreshTargets(Account& acc);
    void sendTargetRefresh(Call& call);
    void onUpdateResponse(Call& call, int status, char const* phrase);
    void onIncomingUpdate(Call& call, sip_t const* sip);
    void onLocalBye(Call& call);
    static void onHangupBound(void* magic, su_timer_t* t, void* arg);

    // Who may talk to us outside a dialog (guard.cpp).
    void loadTrustConfig();
    void learnServer(Account& acc);
    bool admit(nua_handle_t* nh, sip_t const* sip);
    void answerUnbound(nua_event_t event, nua_handle_t* nh, sip_t const* sip);

    // Calls whose media the media engine lost (media_watch.cpp).
    void startMediaWatch();
    void stopMediaWatch();
    void onMediaLost(const std::string& ufrag, const std::string& why);
    void onUnusable(unsigned long long key, int status, const std::string& why);

    // Shutdown (shutdown.cpp).
    void beginShutdown();
    void endCallsForShutdown();
    void leaveAccountsForShutdown();
    void continueShutdown();
    static void onShutdownTimeout(void* magic, su_timer_t* t, void* arg);
    void onStackShutdown(int status);
    void teardownStack();

    // Stack events (events.cpp).
    static void onNuaEvent(nua_event_t event, int status, char const* phrase, nua_t* nua,
                           UserAgent* self, nua_handle_t* nh, HandleContext* ctx, sip_t const* sip,
                           tagi_t tags[]);
    void dispatch(nua_event_t event, int status, char const* phrase, nua_handle_t* nh,
                  HandleContext* ctx, sip_t const* sip, tagi_t tags[]);
    void onAccountEvent(Account& account, nua_event_t event, int status, char const* phrase,
                        nua_handle_t* nh, sip_t const* sip);
    void onCallEvent(Call& call, nua_event_t event, int status, char const* phrase,
                     nua_handle_t* nh, sip_t const* sip, tagi_t tags[]);
    void onUnboundEvent(nua_event_t event, nua_handle_t* nh, sip_t const* sip, tagi_t tags[]);
    std::string digestAnswer(sip_t const* sip, const AccountConfig& cfg, const char* method,
                             const std::string& uri);
    void onMessage(nua_handle_t* nh, sip_t const* sip);

    // Registration (registration.cpp).
    const Account* currentAccount() const;
    void startAccount(std::unique_ptr<Account> account);
    void sendRegister(Account& acc);
    void issueRegister(Account& acc, bool proxy, const std::string& credentials);
    bool answerChallenge(Account& acc, sip_t const* sip, bool unregister);
    void onRegisterResponse(Account& acc, int status, char const* phrase, sip_t const* sip);
    void onUnregisterResponse(Account& acc, int status, char const* phrase, sip_t const* sip);
    void scheduleRetry(Account& acc);
    static void onRetryTimer(void* magic, su_timer_t* t, void* arg);
    void deregister(int accId);
    void dropAccount(Account& acc);
    bool ensureHandle(Account& acc);
    void releaseHandle(Account& acc);

    // No endless ringing (ring_bounds.cpp).
    void startRingBound(Call& call);
    void stopRingBound(Call& call);
    static void onRingBound(void* magic, su_timer_t* t, void* arg);

    // Calls (calls.cpp).
    void startCall(int callId, std::string callee, std::string displayName, std::string deviceType,
                   std::string sdp, int mediaResolution);
    // `credentials` answer a proxy's challenge (407) or the server's own (401).
    bool sendInvite(Call& call, bool proxy, const std::string& credentials);
    bool retryWithCredentials(Call& call, sip_t const* sip);
    void acceptCall(int callId, std::string sdp, std::string deviceType, int mediaResolution);
    void rejectCall(int callId, int code);
    void hangupCall(int callId);
    void reinvite(int callId, std::string sdp);
    Call* liveCall(int callId);
    void onIncomingInvite(nua_handle_t* nh, sip_t const* sip);
    void onIncomingReinvite(Call& call, sip_t const* sip);
    void onInviteResponse(Call& call, int status, char const* phrase, sip_t const* sip);
    void onCallState(Call& call, int callState, int status, char const* phrase);
    void onInfo(Call& call, sip_t const* sip);
    void reportState(Call& call, int state, int reason, const char* text);
    void endCall(Call& call, int reason, const char* text);
    // A plain offer refused with 488/606: the same call again with its DTLS-SRTP
    // variant. False when there is none or it was sent already.
    bool sendAlternative(Call& call, int status);
    // Final refusal of an INVITE (or an offer in a request) with a Warning naming why.
    void refuse(nua_handle_t* nh, int status, const std::string& why, bool withThis = false);
    void byeWithReason(Call& call, int status, const std::string& why);
    void failUnsentCall(int callId, int reason, const char* text);
    void hangupUnsent(int callId);
    void releaseCall(Call& call);

    // Set before the thread starts or only read by it.
    std::atomic<RegistrationStateDelegate*> regDelegate_{nullptr};
    std::atomic<CallStateDelegate*> callDelegate_{nullptr};
    std::atomic<int> nextAccountId_{1};
    std::atomic<int> nextCallId_{1};

    std::thread thread_;
    std::thread::id threadId_;
    const int localPort_;
    bool selfDestroy_ = false;  // written before the thread learns of the shutdown
    // Set by the destructor on any thread: no delegate calls, no new work.
    std::atomic<bool> closing_{false};

    std::mutex queueMutex_;
    std::deque<Task> queue_;
    bool queueOpen_ = false;  // false before start and after the loop stops
    int eventFd_ = -1;

    // Engine thread only.
    su_root_t* root_ = nullptr;
    nua_t* nua_ = nullptr;
    su_wait_t wait_[1];
    bool waitRegistered_ = false;
    su_timer_t* shutdownTimer_ = nullptr;
    bool draining_ = false;
    bool shutdownDone_ = false;
    bool stackShutdownSent_ = false;
    std::map<int, std::unique_ptr<Account>> accounts_;
    std::map<int, std::unique_ptr<Call>> calls_;
    // Ids handed out and not yet used by a call: each may be used once, and one hung
    // up before its call was made ends there (oldest dropped beyond a bound).
    std::set<int> unsent_;
    bool stackTls_ = false;  // the stack speaks TLS only
    TrustFilter trust_;
    struct Probe {
        std::shared_ptr<std::atomic<bool>> done;
        std::thread thread;
    };
    std::vector<Probe> probes_;
    int linkToken_ = 0;                  // media-lost news (media_watch.cpp)
    int unusableToken_ = 0;              // unusable-description news (media_watch.cpp)
    std::string warnAgent_ = "zarnrtc";  // our host in Warning headers (stack.cpp)
};

}  // namespace sipengine

#endif
