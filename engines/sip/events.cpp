// Events from the NUA stack, sent to the account or call their handle is bound to, or
// answered here when they came outside any dialog of ours.
#include <algorithm>

#include "call_state.h"
#include "log.h"
#include "status_codes.h"
#include "user_agent.h"

namespace sipengine {

void UserAgent::onNuaEvent(nua_event_t event, int status, char const* phrase, nua_t*,
                           UserAgent* self, nua_handle_t* nh, HandleContext* ctx, sip_t const* sip,
                           tagi_t tags[]) {
    self->dispatch(event, status, phrase, nh, ctx, sip, tags);
}

void UserAgent::dispatch(nua_event_t event, int status, char const* phrase, nua_handle_t* nh,
                         HandleContext* ctx, sip_t const* sip, tagi_t tags[]) {
    logTrace("event %s %d %s", nua_event_name(event), status, phrase ? phrase : "");
    if (event == nua_r_shutdown) {
        onStackShutdown(status);
    } else if (!ctx) {
        onUnboundEvent(event, nh, sip, tags);
    } else if (ctx->kind == HandleContext::Kind::kAccount) {
        onAccountEvent(static_cast<Account&>(*ctx), event, status, phrase, nh, sip);
    } else {
        onCallEvent(static_cast<Call&>(*ctx), event, status, phrase, nh, sip, tags);
    }
}

void UserAgent::onAccountEvent(Account& account, nua_event_t event, int status, char const* phrase,
                               nua_handle_t* nh, sip_t const* sip) {
    switch (event) {
        case nua_r_register:
            onRegisterResponse(account, status, phrase, sip);
            return;
        case nua_r_unregister:
            onUnregisterResponse(account, status, phrase, sip);
            return;
        case nua_i_message:
        case nua_i_info:
        case nua_i_options:
            answerUnbound(event, nh, sip);
            return;
        case nua_i_update:  // no dialog of ours
            nua_respond(nh, SIP_481_NO_TRANSACTION, NUTAG_WITH_THIS(nua_), TAG_END());
            return;
        default:
            return;
    }
}

void UserAgent::onCallEvent(Call& call, nua_event_t event, int status, char const* phrase,
                            nua_handle_t* nh, sip_t const* sip, tagi_t tags[]) {
    switch (event) {
        case nua_i_invite:
            onIncomingReinvite(call, sip);
            return;
        case nua_r_invite:
            onInviteResponse(call, status, phrase, sip);
            return;
        case nua_i_state: {
            int callState = nua_callstate_init;
            tl_gets(tags, NUTAG_CALLSTATE_REF(callState), TAG_END());
            onCallState(call, callState, status, phrase);
            return;
        }
        case nua_r_update:
        case nua_r_method:
            onUpdateResponse(call, status, phrase);
            return;
        case nua_r_bye:
            if (isFinal(status)) call.lastStatus = status;
            return;
        case nua_i_bye:
            call.lastStatus = kStatusOk;
            return;
        case nua_i_cancel:
            call.lastStatus = kStatusRequestTerminated;
            reportState(call, kCancel, kStatusRequestTerminated, "Request Terminated");
            return;
        // Inside our dialog: answered by us, as the stack leaves these to us.
        case nua_i_info:
            nua_respond(nh, SIP_200_OK, NUTAG_WITH_THIS(nua_), TAG_END());
            onInfo(call, sip);
            return;
        case nua_i_message:
            nua_respond(nh, SIP_200_OK, NUTAG_WITH_THIS(nua_), TAG_END());
            onMessage(nh, sip);
            return;
        case nua_i_options:
            nua_respond(nh, SIP_200_OK, NUTAG_WITH_THIS(nua_), TAG_END());
            return;
        case nua_i_update:
            onIncomingUpdate(call, sip);
            return;
        default:
            return;
    }
}

// A handle the stack made for a request outside our dialogs: a new call, or a request
// the stack has answered, whose handle is ours to free.
void UserAgent::onUnboundEvent(nua_event_t event, nua_handle_t* nh, sip_t const* sip,
                               tagi_t tags[]) {
    switch (event) {
        case nua_i_invite:
            if (admit(nh, sip)) onIncomingInvite(nh, sip);
            return;
        case nua_i_state: {
            int callState = nua_callstate_init;
            tl_gets(tags, NUTAG_CALLSTATE_REF(callState), TAG_END());
            // An INVITE we refused without making a call.
            if (callState == nua_callstate_terminated) nua_handle_destroy(nh);
            return;
        }
        case nua_i_message:
        case nua_i_info:
        case nua_i_options:
            answerUnbound(event, nh, sip);
            nua_handle_destroy(nh);
            return;
        case nua_i_update:
            nua_respond(nh, SIP_481_NO_TRANSACTION, NUTAG_WITH_THIS(nua_), TAG_END());
            nua_handle_destroy(nh);
            return;
        case nua_i_subscribe:
        case nua_i_refer:
        case nua_i_notify:
        case nua_i_publish:
            nua_handle_destroy(nh);
            return;
        default:
            return;
    }
}

void UserAgent::onMessage(nua_handle_t*, sip_t const* sip) {
    RegistrationStateDelegate* delegate = regDelegate_.load();
    if (closing_ || !delegate || !sip) return;
    std::string from;
    if (sip->sip_from) {
        char* text = url_as_string(nullptr, sip->sip_from->a_url);
        if (text) from = text;
        su_free(nullptr, text);
    }
    std::string body;
    if (sip->sip_payload) body.assign(sip->sip_payload->pl_data, sip->sip_payload->pl_len);
    delegate->onMessage(from.c_str(), body.c_str());
}

}  // namespace sipengine
