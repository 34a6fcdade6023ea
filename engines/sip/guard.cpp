// Who may talk to this device outside a dialog, and the digest answers that prove
// who we are. A request is judged by the transport address it came from, before
// any call, media or application callback is made for it.
#include <arpa/inet.h>

#include <random>

#include "digest.h"
#include "log.h"
#include "sip_settings.h"
#include "user_agent.h"

#include <sofia-sip/msg_addr.h>

namespace sipengine {

namespace {

// The address a message arrived from (a request) or was answered from (a response).
bool endpointOf(msg_t* msg, Endpoint* out) {
    su_addrinfo_t* ai = msg ? msg_addrinfo(msg) : nullptr;
    if (!ai || !ai->ai_addr) return false;
    const su_sockaddr_t* su = reinterpret_cast<const su_sockaddr_t*>(ai->ai_addr);
    char buf[INET6_ADDRSTRLEN] = {0};
    const void* addr = su->su_family == AF_INET6 ? static_cast<const void*>(&su->su_sin6.sin6_addr)
                                                 : static_cast<const void*>(&su->su_sin.sin_addr);
    if ((su->su_family != AF_INET && su->su_family != AF_INET6) ||
        !inet_ntop(su->su_family, addr, buf, sizeof(buf)))
        return false;
    out->address = canonicalAddress(buf);
    out->port = ntohs(su->su_port);
    return !out->address.empty();
}

std::string freshCnonce() {
    static thread_local std::mt19937_64 rng{std::random_device{}()};
    char text[17];
    snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(rng()));
    return text;
}

}  // namespace

void UserAgent::loadTrustConfig() {
    // The settings refuse a list with any item that is not an address: none allowed.
    std::string list;
    for (const std::string& item : zarnrtc::settings::sipSettings().allowPeers) list += item + ",";
    std::vector<Endpoint> peers;
    if (parseEndpointList(list, &peers)) trust_.setAllowedPeers(std::move(peers));
}

void UserAgent::learnServer(Account& acc) {
    Endpoint server;
    if (endpointOf(nua_current_request(nua_), &server)) trust_.setServer(acc.id, server);
}

bool UserAgent::admit(nua_handle_t* nh, sip_t const* sip) {
    Endpoint from;
    bool known = endpointOf(nua_current_request(nua_), &from);
    const char* user = sip && sip->sip_request ? sip->sip_request->rq_url->url_user : nullptr;
    bool addressed = false;
    for (const auto& entry : accounts_)
        if (user && entry.second->wanted && entry.second->config.user == user) addressed = true;
    auto verdict = known ? trust_.check(from, addressed, TrustFilter::Clock::now())
                         : TrustFilter::Verdict::kRefuse;
    if (verdict == TrustFilter::Verdict::kAccept) return true;
    if (verdict == TrustFilter::Verdict::kRefuse) {
        logError("refused %s from %s:%d: not our server and not a listed peer",
                 sip && sip->sip_request ? sip->sip_request->rq_method_name : "request",
                 known ? from.address.c_str() : "?", from.port);
    }
    nua_respond(nh, SIP_403_FORBIDDEN, NUTAG_WITH_THIS(nua_), TAG_END());
    return false;
}

// OPTIONS, MESSAGE and INFO outside a call: answered only for those we trust.
void UserAgent::answerUnbound(nua_event_t event, nua_handle_t* nh, sip_t const* sip) {
    if (admit(nh, sip)) {
        nua_respond(nh, SIP_200_OK, NUTAG_WITH_THIS(nua_), TAG_END());
        if (event == nua_i_message) onMessage(nh, sip);
    }
}

std::string UserAgent::digestAnswer(sip_t const* sip, const AccountConfig& cfg, const char* method,
                                    const std::string& uri) {
    msg_auth_t const* challenge = !sip                        ? nullptr
                                  : sip->sip_www_authenticate ? sip->sip_www_authenticate
                                                              : sip->sip_proxy_authenticate;
    if (!challenge || !challenge->au_scheme || strcasecmp(challenge->au_scheme, "Digest") != 0)
        return "";
    std::vector<std::string> params;
    for (msg_param_t const* p = challenge->au_params; p && *p; ++p) params.emplace_back(*p);
    DigestChallenge parsed;
    if (!parseDigestChallenge(params, &parsed)) return "";
    return digestAuthorization(parsed, cfg.authUser, cfg.password, {method, uri, freshCnonce(), 1});
}

}  // namespace sipengine
