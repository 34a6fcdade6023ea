// What the host SIP engine reads from its installation (docs/settings.md has the
// same rows for people). Defaults are the initialisers; each row of the table below
// says which variable sets a field and what it accepts.
#ifndef ZARNRTC_ENGINES_SIP_SETTINGS_H
#define ZARNRTC_ENGINES_SIP_SETTINGS_H

#include <string>
#include <vector>

#include "settings.h"

namespace zarnrtc {
namespace settings {

struct SipSettings {
    // Local address the SIP transport binds to; empty: the address that routes to
    // the first account's server. An IPv4/IPv6 literal or "*". Read when the stack
    // starts (first registration).
    std::string bind;
    // PEM file of the CAs a sips: server must chain to; empty: the system's bundle.
    // Read when the TLS stack starts and at each TLS probe.
    std::string caFile;
    // Peers allowed to send requests without the server: ADDRESS[:PORT] items;
    // empty: none. Read when the engine starts.
    std::vector<std::string> allowPeers;
    // Trace on stderr: 0 off, 1 engine events and the SIP wire trace, 2..9 also
    // sofia's own debug output at that level. Read once per process.
    int logLevel = 0;
    // Seconds an outgoing call may ring before the engine cancels it (408). 1..86400.
    // Read when each call starts ringing.
    int outgoingRingS = 60;
    // Seconds an incoming call may ring unanswered before the engine answers 480.
    // 1..86400. Read when each call starts ringing.
    int incomingRingS = 60;
    // Where the TLS stack's short-lived CA folder is made (the system's TMPDIR).
    std::string tempDir;
};

inline const SettingTable<SipSettings>& sipSettingTable() {
    using S = SipSettings;
    static const SettingTable<S> table = {
        text("ZARNRTC_SIP_BIND", &S::bind, "an IP address or *", isBindAddress),
        text("ZARNRTC_SIP_CA_FILE", &S::caFile, "a file name"),
        list("ZARNRTC_SIP_ALLOW_PEERS", &S::allowPeers, isEndpoint,
             "comma-separated ADDRESS, ADDRESS:PORT or [IPv6]:PORT"),
        integer("ZARNRTC_SIP_LOG", &S::logLevel, 0, 9, "0 off, 1 trace, 2..9 sofia debug"),
        seconds("ZARNRTC_SIP_OUTGOING_RING_S", &S::outgoingRingS, 1, 86400),
        seconds("ZARNRTC_SIP_INCOMING_RING_S", &S::incomingRingS, 1, 86400),
        systemVariable("TMPDIR", &S::tempDir),
    };
    return table;
}

// The record in force: loaded on first use, or the last one a test put in place.
// A copy, taken when the value is needed (see docs/settings.md for when each field
// is read), so a replacement reaches the next reader. Any thread.
ZARN_SETTINGS_API SipSettings sipSettings();
// Puts `next` in place for every later reader; returns the one it replaces. For tests
// (testing/settings_scope.h). Any thread.
ZARN_SETTINGS_API SipSettings useSipSettings(SipSettings next);

}  // namespace settings
}  // namespace zarnrtc

#endif
