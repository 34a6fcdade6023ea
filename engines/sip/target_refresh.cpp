// A registrar that lost our connection (a crash, a restart) forgets it; the proxy's
// in-dialog routing still points every dialog at that dead connection (the ;alias it
// put in our Contact). Once the account is registered again over a new connection,
// each established call sends an UPDATE without a body: a target refresh whose
// Contact the proxy rewrites to the new connection, so the far end's BYE reaches us.
// The far end's UPDATEs (its own refreshes) are answered here too.
#include <cstdint>

#include "log.h"
#include "sip_text.h"
#include "status_codes.h"
#include "user_agent.h"

namespace sipengine {

namespace {

// A BYE waits in the dialog's queue until our UPDATE is answered, which a far end that
// stopped answering would stretch to the transaction's timeout (32 s).
constexpr int kHangupBehindRefreshMs = 4000;

// The body when it is SDP; "" for none. `other` is set for a body of another type.
std::string offerOf(sip_t const* sip, bool* other) {
    *other = false;
    if (!sip || !sip->sip_payload || !sip->sip_payload->pl_data || !sip->sip_payload->pl_len)
        return {};
    if (sip->sip_content_type && sip->sip_content_type->c_type &&
        strcasecmp(sip->sip_content_type->c_type, "application/sdp") != 0) {
        *other = true;
        return {};
    }
    return std::string(sip->sip_payload->pl_data, sip->sip_payload->pl_len);
}

}  // namespace

void UserAgent::markTargetsStale(Account& acc) {
    acc.targetsStale = true;
}

void UserAgent::refreshTargets(Account& acc) {
    if (!acc.targetsStale || closing_) return;
    acc.targetsStale = false;
    for (auto& entry : calls_) {
        Call& call = *entry.second;
        // Incoming calls take the account current when they arrived (0: none).
        if (call.accountId != acc.id && call.accountId != 0) continue;
        if (call.ended || !call.answered || call.byeSent || !call.nh) continue;
        sendTargetRefresh(call);
    }
}

void UserAgent::sendTargetRefresh(Call& call) {
    if (call.refreshing) {
        call.refreshAgain = true;  // that one may have left on the old connection
        return;
    }
    call.refreshing = true;
    call.refreshAgain = false;
    logTrace("call %d: UPDATE to refresh the far end's target", call.id);
    // The same in-dialog UPDATE on the wire (Contact, route set, target refresh on
    // its 2xx), sent as a plain request: the stack's session UPDATE answers a 5xx or
    // 408 with a BYE of its own, and a failed refresh must not end a call.
    nua_method(call.nh, NUTAG_METHOD("UPDATE"), TAG_END());
}

// Whatever the answer, the call goes on: a refresh that failed leaves the dialog as it
// was, and the media and the far end decide whether the call still lives.
void UserAgent::onUpdateResponse(Call& call, int status, char const* phrase) {
    if (!isFinal(status)) return;
    call.refreshing = false;
    if (!isSuccess(status)) {
        logTrace("call %d: UPDATE answered %d %s", call.id, status, phrase ? phrase : "");
    }
    if (call.refreshAgain && !call.ended && !call.byeSent && !closing_) sendTargetRefresh(call);
}

// Our BYE is on its way, or queued behind our pending refresh: bound that wait.
void UserAgent::onLocalBye(Call& call) {
    call.byeSent = true;
    call.refreshAgain = false;
    if (!call.refreshing || call.hangupTimer) return;
    call.hangupTimer = su_timer_create(su_root_task(root_), 0);
    if (!call.hangupTimer) return;
    // The id, not the call: a call freed before the timer fires is simply not found.
    su_timer_set_interval(call.hangupTimer, onHangupBound,
                          reinterpret_cast<void*>(static_cast<intptr_t>(call.id)),
                          kHangupBehindRefreshMs);
}

// Still waiting: the call ends here, and its handle goes with the queued BYE; the far
// end that cannot answer an UPDATE would not have answered the BYE either.
void UserAgent::onHangupBound(void* magic, su_timer_t*, void* arg) {
    auto* self = static_cast<UserAgent*>(magic);
    auto it = self->calls_.find(static_cast<int>(reinterpret_cast<intptr_t>(arg)));
    if (it == self->calls_.end()) return;
    Call& call = *it->second;
    logTrace("call %d: BYE still behind an unanswered UPDATE; ended here", call.id);
    self->endCall(call, kStatusRequestTimeout, "far end does not answer");
    self->releaseCall(call);  // frees the timer whose callback this is (one-shot: safe)
}

// The stack applies the new target when our 2xx goes out. An offer is answered like
// a re-INVITE's: our last description, in the DTLS role already in use.
void UserAgent::onIncomingUpdate(Call& call, sip_t const* sip) {
    bool other = false;
    std::string offer = offerOf(sip, &other);
    if (call.ended) {
        nua_respond(call.nh, SIP_481_NO_TRANSACTION, NUTAG_WITH_THIS(nua_), TAG_END());
    } else if (other) {
        nua_respond(call.nh, SIP_415_UNSUPPORTED_MEDIA, SIPTAG_ACCEPT_STR("application/sdp"),
                    NUTAG_WITH_THIS(nua_), TAG_END());
    } else if (offer.empty()) {
        nua_respond(call.nh, SIP_200_OK, NUTAG_WITH_THIS(nua_), TAG_END());
    } else if (call.reinviting) {
        nua_respond(call.nh, SIP_491_REQUEST_PENDING, NUTAG_WITH_THIS(nua_), TAG_END());
    } else if (!call.answered || call.localSdp.empty()) {
        refuse(call.nh, kStatusNotAcceptableHere, "an offer in UPDATE before the call is answered",
               true);
    } else {
        std::string answer = answerWithRole(call.localSdp, call.remoteSetup);
        nua_respond(call.nh, SIP_200_OK, NUTAG_WITH_THIS(nua_),
                    SIPTAG_CONTENT_TYPE_STR("application/sdp"), SIPTAG_PAYLOAD_STR(answer.c_str()),
                    TAG_END());
        CallStateDelegate* delegate = callDelegate_.load();
        if (delegate && !closing_) {
            MediaFlags flags = sdpMediaFlags(offer);
            delegate->OnMediaStateChange(call.id, offer.c_str(), flags.audio, flags.video);
        }
    }
}

}  // namespace sipengine
