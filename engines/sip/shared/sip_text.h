// Text handling of the engine that needs no SIP stack: addresses, SDP and INFO bodies.
#ifndef ZARNRTC_ENGINES_SIP_SIP_TEXT_H
#define ZARNRTC_ENGINES_SIP_SIP_TEXT_H

#include <string>

namespace sipengine {

// "sip:host:port;params", "host:port", "user@host", "[::1]:5060" -> "host[:port]";
// empty when no valid host (name, IPv4, bracketed IPv6) and port (1..65535) is left.
std::string hostPortOf(const char* address);

// "TCP"/"tcp"/"UDP"/null/"" -> "tcp" or "udp"; empty for anything we cannot carry.
std::string transportParam(const char* transport);

// The DTLS role of a description ("active", "passive", "actpass"; empty if none).
std::string sdpSetupRole(const std::string& sdp);

// `sdp` (our last description) fit to answer a new offer: a=setup:actpass becomes the
// role already in use, the opposite of `remoteRole` (active when unknown), since an
// answer must pick one. Everything else stays as it is.
std::string answerWithRole(const std::string& sdp, const std::string& remoteRole);

// True for "sips:host..." or an address with ";transport=tls" (any case).
bool wantsTls(const char* address);

// Callee as the SDK gives it -> request URI. A bare "user" goes to `domain`; an
// address with "@" but no scheme gets "sip:". Empty when nothing usable is left or the
// callee holds whitespace, control characters, '<', '>' or '"'.
std::string calleeUri(const char* callee, const std::string& domain);

struct MediaFlags {
    bool audio = false;
    bool video = false;
};
// A media kind is present when it has an m-line with a port in 1..65535.
MediaFlags sdpMediaFlags(const std::string& sdp);

// Whether an offer is plain RTP: it has an audio or video m-line, and every one of
// them is RTP/AVP or RTP/AVPF (the profiles a browser refuses).
bool sdpPlainRtp(const std::string& sdp);

// The first a=ice-ufrag value, session or media level; empty if none.
std::string sdpIceUfrag(const std::string& sdp);

// Why a description was refused or a call ended, fit for a quoted header value: at most
// kMaxReasonText bytes of printable ASCII, quotes and backslashes replaced, control
// characters turned into spaces and other bytes into '?'. Blank: "not acceptable".
constexpr size_t kMaxReasonText = 160;
std::string reasonText(const std::string& why);
// The value of a Warning header (RFC 3261 20.43): `399 <agent> "<why>"`.
std::string warningValue(const std::string& agent, const std::string& why);
// The value of a Reason header (RFC 3326): `SIP ;cause=<status> ;text="<why>"`.
std::string reasonValue(int status, const std::string& why);

// DTMF carried in INFO: application/dtmf-relay ("Signal=5\r\nDuration=160") or
// application/dtmf ("5"). digit is the RFC 4733 event code (0-9, * 10, # 11, A-D 12-15);
// a duration that is not a number in int range is reported as 0.
bool parseDtmfInfo(const std::string& contentType, const std::string& body, int* digit,
                   int* durationMs);

// A header value or display name from the caller, with nothing that could break out
// of its header (control characters but tab dropped; quotes and backslashes escaped
// when quoted).
std::string headerSafe(const char* value);
std::string quotedDisplayName(const char* display);

// Undo the quoting of a display name as it appears in a From header.
std::string unquoteDisplayName(const char* display);

}  // namespace sipengine

#endif
