// Calls: INVITE transactions with verbatim SDP, the state reports of the delegate
// contract, and the release of every handle once its dialog is over.
#include <cstdlib>

#include "call_state.h"
#include "log.h"
#include "media_settings.h"
#include "sip_text.h"
#include "status_codes.h"
#include "negotiate.h"
#include "user_agent.h"

namespace sipengine {

namespace {

std::string sdpOf(sip_t const* sip) {
    if (!sip || !sip->sip_payload || !sip->sip_payload->pl_data) return {};
    if (sip->sip_content_type && sip->sip_content_type->c_type &&
        strcasecmp(sip->sip_content_type->c_type, "application/sdp") != 0)
        return {};
    return std::string(sip->sip_payload->pl_data, sip->sip_payload->pl_len);
}

// What the media engine can take here: an installation that requires encryption
// refuses plain RTP before anything rings.
libwebrtc::media::sdp::Capabilities mediaCaps() {
    libwebrtc::media::sdp::Capabilities caps;
    caps.require_encryption = zarnrtc::settings::mediaSettings().requireEncryption;
    return caps;
}

// Why an INVITE's body can never be answered; "" when the media engine may take it.
std::string offerProblem(sip_t const* sip, const std::string& sdp) {
    if (!sdp.empty()) return libwebrtc::media::sdp::Unusable(sdp, mediaCaps());
    if (sip && sip->sip_payload && sip->sip_payload->pl_len)
        return "the INVITE's body is not application/sdp";
    return "no SDP offer in the INVITE: this device answers offers, not delayed offers";
}

std::string urlText(url_t const* url) {
    if (!url) return {};
    char* text = url_as_string(nullptr, url);
    std::string out = text ? text : "";
    su_free(nullptr, text);
    return out;
}

std::string extraHeaders(const std::string& deviceType, int mediaResolution) {
    std::string headers;
    std::string type = headerSafe(deviceType.c_str());
    if (!type.empty()) headers += "X-Device-Type: " + type + "\r\n";
    headers += "X-Media-Resolution: " + std::to_string(mediaResolution);
    return headers;
}

}  // namespace

Call* UserAgent::liveCall(int callId) {
    auto it = calls_.find(callId);
    if (it == calls_.end() || it->second->ended || closing_) return nullptr;
    return it->second.get();
}

void UserAgent::startCall(int callId, std::string callee, std::string displayName,
                          std::string deviceType, std::string sdp, int mediaResolution) {
    // Only ids this agent handed out, each used once.
    if (closing_ || !unsent_.erase(callId)) return;
    const Account* acc = currentAccount();
    if (!nua_ || !acc) {
        failUnsentCall(callId, 0, "no account");
        return;
    }
    const AccountConfig& cfg = acc->config;
    std::string uri = calleeUri(callee.c_str(), cfg.domain);
    if (uri.empty() || sdp.empty()) {
        failUnsentCall(callId, 0, uri.empty() ? "bad callee" : "no SDP");
        return;
    }
    auto owned = std::make_unique<Call>();
    Call& call = *owned;
    call.id = callId;
    call.accountId = acc->id;
    call.outgoing = true;
    call.localSdp = sdp;
    if (sdpPlainRtp(sdp)) call.plainUfrag = sdpIceUfrag(sdp);
    std::string aor = "<" + aorOf(cfg) + ">";
    std::string display = displayName.empty() ? cfg.displayName : displayName;
    call.from = display.empty() ? aor : quotedDisplayName(display.c_str()) + " " + aor;
    call.route = "<" + firstHopUri(cfg) + ";lr>";
    // In angle brackets, so URI parameters (;transport=tcp) stay in the request URI.
    call.requestUri = uri;
    call.to = "<" + uri + ">";
    call.headers = extraHeaders(deviceType, mediaResolution);
    logTrace("call %d: INVITE %s", callId, uri.c_str());
    if (!sendInvite(call, false, "")) {
        failUnsentCall(callId, 0, "bad callee");
        return;
    }
    startRingBound(call);
    calls_[callId] = std::move(owned);
}

// The first INVITE, or the same INVITE again on a fresh handle with our answer to a
// challenge (the stack's own retry cannot carry every password).
bool UserAgent::sendInvite(Call& call, bool proxy, const std::string& credentials) {
    call.nh =
        nua_handle(nua_, &call, SIPTAG_TO_STR(call.to.c_str()), SIPTAG_FROM_STR(call.from.c_str()),
                   NUTAG_INITIAL_ROUTE_STR(call.route.c_str()), TAG_END());
    if (!call.nh) return false;
    bool answer = !credentials.empty();
    timelineMark(call.id, "sip: INVITE sent");
    nua_invite(call.nh, SIPTAG_CONTENT_TYPE_STR("application/sdp"),
               SIPTAG_PAYLOAD_STR(call.localSdp.c_str()), SIPTAG_HEADER_STR(call.headers.c_str()),
               TAG_IF(answer && proxy, SIPTAG_PROXY_AUTHORIZATION_STR(credentials.c_str())),
               TAG_IF(answer && !proxy, SIPTAG_AUTHORIZATION_STR(credentials.c_str())), TAG_END());
    return true;
}

bool UserAgent::retryWithCredentials(Call& call, sip_t const* sip) {
    auto acc = accounts_.find(call.accountId);
    if (acc == accounts_.end() || call.reinviting || call.answered || call.cancelling) return false;
    std::string credentials = digestAnswer(sip, acc->second->config, "INVITE", call.requestUri);
    if (credentials.empty()) return false;
    bool proxy = !sip->sip_www_authenticate;
    // The challenged handle is done with: nothing more of it reaches the call.
    nua_handle_bind(call.nh, nullptr);
    nua_handle_destroy(call.nh);
    call.nh = nullptr;
    return sendInvite(call, proxy, credentials);
}

// A callee that cannot take our plain RTP/AVPF offer refuses it with 488 (a 606
// says the same for every target) before it rings: a SIP phone without AVPF, or a
// browser, which takes DTLS-SRTP only (Kamailio refuses for a WebSocket contact). The
// media engine left variants of the offer in the link, RTP/AVP then DTLS-SRTP: the
// call goes out again with the next one, in a new dialog, and the SDK hears only of
// the attempt that rings.
bool UserAgent::sendAlternative(Call& call, int status) {
    if ((status != kStatusNotAcceptableHere && status != kStatusNotAcceptableAnywhere) ||
        call.plainUfrag.empty() || call.cancelling || call.answered || closing_)
        return false;
    char* copy = zarn_link_copy_alternative(call.plainUfrag.c_str(), call.fallbacks);
    if (!copy) return false;
    std::string alternative = copy;
    free(copy);
    if (alternative.empty()) return false;
    ++call.fallbacks;
    const char* profile =
        alternative.find("UDP/TLS/RTP/SAVP") != std::string::npos ? "DTLS-SRTP" : "RTP/AVP";
    std::string mark =
        "sip: " + std::to_string(status) + " to the offer, INVITE again with " + profile;
    logTrace("call %d: %s", call.id, mark.c_str() + 5);
    timelineMark(call.id, mark.c_str());
    // The refused dialog is done with: nothing more of it reaches the call.
    nua_handle_bind(call.nh, nullptr);
    nua_handle_destroy(call.nh);
    call.nh = nullptr;
    call.localSdp = alternative;  // what re-INVITE and UPDATE answers use from now on
    call.authTried = false;       // the new dialog is challenged again
    if (sendInvite(call, false, "")) return true;
    reportState(call, kFailed, status, "Not Acceptable");
    endCall(call, status, "Not Acceptable");
    releaseCall(call);
    return true;
}

void UserAgent::refuse(nua_handle_t* nh, int status, const std::string& why, bool withThis) {
    char const* phrase = sip_status_phrase(status);
    std::string warning = warningValue(warnAgent_, why);
    nua_respond(nh, status, phrase ? phrase : "Not Acceptable Here",
                TAG_IF(withThis, NUTAG_WITH_THIS(nua_)), SIPTAG_WARNING_STR(warning.c_str()),
                TAG_END());
}

// The far end learns why from the Reason header; the call's end is reported by the caller.
void UserAgent::byeWithReason(Call& call, int status, const std::string& why) {
    std::string reason = reasonValue(status, why);
    nua_bye(call.nh, SIPTAG_REASON_STR(reason.c_str()), TAG_END());
    onLocalBye(call);
}

void UserAgent::failUnsentCall(int callId, int reason, const char* text) {
    logTrace("call %d: not sent (%s)", callId, text);
    CallStateDelegate* delegate = callDelegate_.load();
    if (!delegate) return;
    delegate->OnCallStateChange(callId, kFailed, reason, text);
    // The application may have destroyed the engine inside the first report.
    if (!closing_) delegate->OnCallStateChange(callId, kHangup, reason, text);
}

// Hung up before its INVITE was asked for (the media was still being prepared): the
// call ends here, and a later request to make it finds its id spent. Without this
// end its owner would wait for one forever, with its media session.
void UserAgent::hangupUnsent(int callId) {
    if (closing_ || !unsent_.erase(callId)) return;
    logTrace("call %d: hung up before it was sent", callId);
    if (CallStateDelegate* delegate = callDelegate_.load())
        delegate->OnCallStateChange(callId, kHangup, kStatusRequestTerminated,
                                    "hung up before it was sent");
}

void UserAgent::acceptCall(int callId, std::string sdp, std::string deviceType,
                           int mediaResolution) {
    Call* call = liveCall(callId);
    if (!call || call->outgoing || call->localAnswer || sdp.empty()) return;
    call->localAnswer = true;
    stopRingBound(*call);
    call->localSdp = sdp;
    std::string headers = extraHeaders(deviceType, mediaResolution);
    timelineMark(call->id, "sip: 200 sent");
    nua_respond(call->nh, SIP_200_OK, SIPTAG_CONTENT_TYPE_STR("application/sdp"),
                SIPTAG_PAYLOAD_STR(sdp.c_str()), SIPTAG_HEADER_STR(headers.c_str()), TAG_END());
}

void UserAgent::rejectCall(int callId, int code) {
    Call* call = liveCall(callId);
    if (!call) return;
    if (call->outgoing || call->localAnswer) {
        hangupCall(callId);  // nothing left to reject: end it the usual way
        return;
    }
    if (code < kStatusFirstRedirect || code > kStatusLastGlobalFailure) code = kStatusDecline;
    char const* phrase = sip_status_phrase(code);
    call->lastStatus = code;
    nua_respond(call->nh, code, phrase ? phrase : "Rejected", TAG_END());
}

void UserAgent::hangupCall(int callId) {
    Call* call = liveCall(callId);
    if (!call) return hangupUnsent(callId);
    if (call->outgoing && !call->answered) {
        if (!call->cancelling) {
            call->cancelling = true;
            nua_cancel(call->nh, TAG_END());
        }
    } else if (!call->outgoing && !call->localAnswer) {
        call->lastStatus = kStatusDecline;
        nua_respond(call->nh, SIP_603_DECLINE, TAG_END());
    } else {
        nua_bye(call->nh, TAG_END());
        onLocalBye(*call);
    }
}

void UserAgent::reinvite(int callId, std::string sdp) {
    Call* call = liveCall(callId);
    if (!call || !call->answered || call->reinviting || sdp.empty()) return;
    call->reinviting = true;
    call->authTried = false;
    call->localSdp = sdp;
    nua_invite(call->nh, SIPTAG_CONTENT_TYPE_STR("application/sdp"),
               SIPTAG_PAYLOAD_STR(sdp.c_str()), TAG_END());
}

void UserAgent::onIncomingInvite(nua_handle_t* nh, sip_t const* sip) {
    CallStateDelegate* delegate = callDelegate_.load();
    std::string sdp = sdpOf(sip);
    if (closing_ || !delegate) {
        nua_respond(nh, SIP_480_TEMPORARILY_UNAVAILABLE, TAG_END());
        return;
    }
    // The SDK can only answer an offer the media engine can take: anything else is
    // refused before it rings, and costs no call, no media and no callback.
    std::string unusable = offerProblem(sip, sdp);
    if (!unusable.empty()) {
        logError("incoming INVITE refused with 488: %s", unusable.c_str());
        refuse(nh, kStatusNotAcceptableHere, unusable);
        return;
    }
    auto owned = std::make_unique<Call>();
    Call& call = *owned;
    call.id = nextCallId_.fetch_add(1);
    timelineMark(call.id, "sip: INVITE received");
    call.nh = nh;
    call.remoteKey = zarn_link_text_key(sdp.c_str());
    const Account* acc = currentAccount();
    call.accountId = acc ? acc->id : 0;
    nua_handle_bind(nh, &call);
    calls_[call.id] = std::move(owned);

    std::string display, from, to;
    if (sip && sip->sip_from) {
        display = unquoteDisplayName(sip->sip_from->a_display);
        from = urlText(sip->sip_from->a_url);
    }
    if (sip && sip->sip_to) to = urlText(sip->sip_to->a_url);
    MediaFlags flags = sdpMediaFlags(sdp);
    logTrace("call %d: incoming from %s", call.id, from.c_str());
    delegate->OnIncomingCall(call.accountId, call.id, display.c_str(), from.c_str(), to.c_str());
    // Destroyed from inside OnIncomingCall: the shutdown answers the call with 480.
    if (closing_) return;
    delegate->OnCallOffer(call.id, sdp.c_str(), flags.audio, flags.video);
    if (closing_) return;
    nua_respond(nh, SIP_180_RINGING, TAG_END());
    startRingBound(call);
}

void UserAgent::onIncomingReinvite(Call& call, sip_t const* sip) {
    // Answered here with the last local SDP: the SDK has no renegotiation of its own.
    if (call.ended || call.localSdp.empty()) {
        refuse(call.nh, kStatusNotAcceptableHere,
               call.ended ? "the call is ending" : "no description of ours to answer with yet");
        return;
    }
    // Our last description may be an offer (actpass): the answer keeps the role in use.
    std::string answer = answerWithRole(call.localSdp, call.remoteSetup);
    nua_respond(call.nh, SIP_200_OK, SIPTAG_CONTENT_TYPE_STR("application/sdp"),
                SIPTAG_PAYLOAD_STR(answer.c_str()), TAG_END());
    std::string sdp = sdpOf(sip);
    CallStateDelegate* delegate = callDelegate_.load();
    if (!sdp.empty() && delegate && !closing_) {
        MediaFlags flags = sdpMediaFlags(sdp);
        delegate->OnMediaStateChange(call.id, sdp.c_str(), flags.audio, flags.video);
    }
}

void UserAgent::onInviteResponse(Call& call, int status, char const* phrase, sip_t const* sip) {
    if (call.ended || status <= kStatusTrying) return;
    const char* text = phrase ? phrase : "";
    if (isChallenge(status) && !call.authTried) {
        call.authTried = true;
        if (retryWithCredentials(call, sip)) return;
        if (!call.nh) {  // no handle left to report the end: end it here
            reportState(call, kFailed, reportedStatus(status), text);
            endCall(call, reportedStatus(status), text);
            releaseCall(call);
            return;
        }
    }
    CallStateDelegate* delegate = closing_ ? nullptr : callDelegate_.load();
    if (call.reinviting) {
        if (!isFinal(status)) return;
        call.reinviting = false;
        std::string sdp = sdpOf(sip);
        if (isSuccess(status) && !sdp.empty()) call.remoteSetup = sdpSetupRole(sdp);
        if (isSuccess(status) && !sdp.empty() && delegate) {
            MediaFlags flags = sdpMediaFlags(sdp);
            delegate->OnMediaStateChange(call.id, sdp.c_str(), flags.audio, flags.video);
        }
        return;
    }
    if (!isFinal(status)) {
        if (call.endReason) return;  // we are ending it: nothing more to report
        std::string sdp = sdpOf(sip);
        if (sdp.empty()) {
            reportState(call, kRinging, status, text);
        } else {
            if (sdp != call.lastEarlySdp && delegate) {
                call.lastEarlySdp = sdp;
                call.earlyKey = zarn_link_text_key(sdp.c_str());
                delegate->OnEarlyMediaSdp(call.id, sdp.c_str());
            }
            reportState(call, kEarlyMedia, status, text);
        }
        return;
    }
    if (!isSuccess(status) && sendAlternative(call, status)) return;
    call.lastStatus = status;
    if (isSuccess(status)) {
        if (call.answered) return;
        call.answered = true;
        timelineMark(call.id, "sip: 200 received");
        stopRingBound(call);
        if (call.cancelling) {
            // Our CANCEL lost the race with the answer: close the call right away.
            if (call.endReason)
                byeWithReason(call, call.endReason, call.endText);
            else
                nua_bye(call.nh, TAG_END());
            return;
        }
        std::string sdp = sdpOf(sip);
        std::string unusable =
            sdp.empty() ? "answer without SDP"
                        : libwebrtc::media::sdp::UnusableAnswer(call.localSdp, sdp, mediaCaps());
        if (!unusable.empty()) {
            // Acknowledged by the stack, then ended: the call could never carry media.
            logTrace("call %d: %s", call.id, unusable.c_str());
            call.endReason = kStatusNotAcceptableHere;
            call.endText = "unusable answer: " + unusable;
            reportState(call, kFailed, call.endReason, call.endText.c_str());
            byeWithReason(call, call.endReason, call.endText);
            return;
        }
        call.remoteKey = zarn_link_text_key(sdp.c_str());
        call.remoteSetup = sdpSetupRole(sdp);
        MediaFlags flags = sdpMediaFlags(sdp);
        if (delegate) delegate->OnCallAnswer(call.id, sdp.c_str(), flags.audio, flags.video);
        reportState(call, kAnswered, status, text);
        return;
    }
    if (call.endReason) {
        // We cancelled it (its early description was unusable) and said so already.
        endCall(call, call.endReason, call.endText.c_str());
        return;
    }
    if (call.ringTimedOut) {
        status = kStatusRequestTimeout;
        text = "not answered in time";
    } else if (call.cancelling && isChallenge(status)) {
        // Hung up before its challenge was answered: the INVITE is not sent again.
        status = kStatusRequestTerminated;
        text = "Request Terminated";
    }
    if (call.cancelling && status == kStatusRequestTerminated && !call.ringTimedOut) {
        reportState(call, kCancel, status, text);
    } else if (status == kStatusBusyHere || status == kStatusBusyEverywhere ||
               status == kStatusDecline) {
        reportState(call, kRejected, status, text);
    } else {
        reportState(call, kFailed, reportedStatus(status), text);
    }
    endCall(call, reportedStatus(status), text);
}

void UserAgent::onCallState(Call& call, int callState, int status, char const* phrase) {
    if (callState == nua_callstate_ready && !call.outgoing && !call.answered) {
        call.answered = true;
        reportState(call, kAnswered, kStatusOk, "OK");
    }
    if (callState != nua_callstate_terminated) return;
    if (!call.ended && call.endReason) {
        endCall(call, call.endReason, call.endText.c_str());
    } else if (!call.ended) {
        int reason = call.lastStatus ? call.lastStatus : status;
        endCall(call, reportedStatus(reason), phrase ? phrase : "");
    }
    releaseCall(call);
}

void UserAgent::onInfo(Call& call, sip_t const* sip) {
    CallStateDelegate* delegate = callDelegate_.load();
    if (call.ended || closing_ || !delegate || !sip) return;
    std::string body;
    if (sip->sip_payload && sip->sip_payload->pl_data)
        body.assign(sip->sip_payload->pl_data, sip->sip_payload->pl_len);
    std::string type;
    if (sip->sip_content_type && sip->sip_content_type->c_type)
        type = sip->sip_content_type->c_type;
    int digit = 0, duration = 0;
    if (parseDtmfInfo(type, body, &digit, &duration)) {
        delegate->OnDtmfEvent(call.id, digit, duration, true);
    } else {
        delegate->OnInfoEvent(call.id, body.c_str());
    }
}

void UserAgent::reportState(Call& call, int state, int reason, const char* text) {
    if (call.ended || closing_) return;
    if ((state == kRinging || state == kEarlyMedia) && state == call.lastState) return;
    call.lastState = state;
    if (CallStateDelegate* delegate = callDelegate_.load()) {
        delegate->OnCallStateChange(call.id, state, reason, text ? text : "");
    }
}

void UserAgent::endCall(Call& call, int reason, const char* text) {
    if (call.ended) return;
    call.ended = true;
    logTrace("call %d: ended %d", call.id, reason);
    if (closing_) return;
    if (CallStateDelegate* delegate = callDelegate_.load()) {
        delegate->OnCallStateChange(call.id, kHangup, reason, text ? text : "");
    }
}

void UserAgent::releaseCall(Call& call) {
    stopRingBound(call);
    // Only this engine takes a call's DTLS-SRTP variant; nobody needs it any more.
    if (!call.plainUfrag.empty()) zarn_link_forget_alternative(call.plainUfrag.c_str());
    if (call.nh) {
        nua_handle_bind(call.nh, nullptr);
        nua_handle_destroy(call.nh);
        call.nh = nullptr;
    }
    calls_.erase(call.id);  // frees call
    continueShutdown();
}

}  // namespace sipengine
