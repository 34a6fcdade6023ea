// HTTP digest answers for SIP challenges, computed here rather than by the stack:
// the stack's credential string is colon-separated and cuts a user name or password
// at its first ':', while a registrar accepts any password.
#ifndef ZARNRTC_ENGINES_SIP_DIGEST_H
#define ZARNRTC_ENGINES_SIP_DIGEST_H

#include <string>
#include <vector>

namespace sipengine {

struct DigestChallenge {
    std::string realm, nonce, opaque, algorithm;
    bool qopAuth = false;  // the server offers qop=auth
    bool stale = false;
};

// Parameters as the stack splits them (`realm="x"`, `qop="auth,auth-int"`, ...).
// False when the challenge lacks a nonce or asks for an algorithm we do not speak.
bool parseDigestChallenge(const std::vector<std::string>& params, DigestChallenge* out);

struct DigestRequest {
    std::string method;  // "REGISTER", "INVITE", ...
    std::string uri;     // the request URI as sent
    std::string cnonce;  // fresh per answer when qop is used
    unsigned nc = 1;
};

// The value of an Authorization or Proxy-Authorization header.
std::string digestAuthorization(const DigestChallenge& challenge, const std::string& user,
                                const std::string& password, const DigestRequest& request);

// Quoted-string helpers (exposed for tests).
std::string quoteString(const std::string& text);
std::string unquoteString(const std::string& text);

}  // namespace sipengine

#endif
