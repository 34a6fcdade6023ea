// Checks a SIP server's TLS certificate before the stack talks to it. The stack
// drops a connection whose certificate does not verify without saying why, and the
// REGISTER then times out after half a minute; this probe turns that into a prompt,
// readable failure.
#ifndef ZARNRTC_ENGINES_SIP_TLS_PROBE_H
#define ZARNRTC_ENGINES_SIP_TLS_PROBE_H

#include <string>

namespace sipengine {

struct TlsProbeTarget {
    std::string host;  // name or address the certificate must carry
    int port = 5061;
    std::string caFile;  // PEM bundle; empty: the system's CA store
    int timeoutMs = 5000;
};

// Connects, completes a TLS handshake and verifies the chain and the name.
// Returns an empty string when the server may be trusted, otherwise the reason.
std::string probeTlsServer(const TlsProbeTarget& target);

}  // namespace sipengine

#endif
