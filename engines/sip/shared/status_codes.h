// SIP response codes the engine decides on, and the account defaults.
#ifndef ZARNRTC_ENGINES_SIP_STATUS_CODES_H
#define ZARNRTC_ENGINES_SIP_STATUS_CODES_H

namespace sipengine {

constexpr int kStatusTrying = 100;
constexpr int kStatusOk = 200;
constexpr int kStatusFirstRedirect = 300;  // first status that is not a success
constexpr int kStatusUnauthorized = 401;
constexpr int kStatusProxyAuthRequired = 407;
constexpr int kStatusRequestTimeout = 408;
constexpr int kStatusTemporarilyUnavailable = 480;
constexpr int kStatusBusyHere = 486;
constexpr int kStatusRequestTerminated = 487;
constexpr int kStatusNotAcceptableHere = 488;
constexpr int kStatusServerError = 500;  // first of the 5xx class
constexpr int kStatusLastServerError = 599;
constexpr int kStatusBusyEverywhere = 600;
constexpr int kStatusDecline = 603;
constexpr int kStatusNotAcceptableAnywhere = 606;
constexpr int kStatusLastGlobalFailure = 699;  // highest status a local Reject may send
// The stack reports its own failures (transport errors, timeouts) with codes from 700
// up; the delegate gets 0 for them.
constexpr int kStatusFirstStackOwn = 700;

// Classes of a response: 1xx provisional, 2xx success, from 300 a failure.
inline bool isFinal(int status) {
    return status >= kStatusOk;
}
inline bool isSuccess(int status) {
    return status >= kStatusOk && status < kStatusFirstRedirect;
}

inline bool isChallenge(int status) {
    return status == kStatusUnauthorized || status == kStatusProxyAuthRequired;
}

// A status as the delegate sees it: 0 for the stack's own codes.
inline int reportedStatus(int status) {
    return status < kStatusFirstStackOwn ? status : 0;
}

// REGISTER expiry when the caller gives none (seconds).
constexpr int kDefaultExpiresSec = 600;

}  // namespace sipengine

#endif
