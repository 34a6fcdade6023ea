// A registrar that lost our connection (a crash, a restart) forgets it; the proxy's
// in-dialog routing still points every dialog at that dead connection (the ;alias it
// put in our Contact). Once the account is registered again over a new connection,
// each established call sends an UPDATE without a body: a target refresh whose
// Contact the proxy rewrites to the new connection, so the far end's BYE reaches us.
#include "log.h"
#include "status_codes.h"
#include "user_agent.h"

namespace sipengine {

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
        if (call.ended || !call.answered || !call.nh) continue;
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
    if (call.refreshAgain && !call.ended && !closing_) sendTargetRefresh(call);
}

}  // namespace sipengine
