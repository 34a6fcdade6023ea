#ifndef ZARNRTC_TESTING_FAKE_SIP_H
#define ZARNRTC_TESTING_FAKE_SIP_H

// Control of the fake libsipengine: a SipEngine that records every operation in the
// fake log and lets a test fire every delegate callback itself.

#include <vector>

#include "CallStateDelegate.h"
#include "RegistrationStateDelegate.h"
#include "SipEngine.h"
#include "fake_log.h"

namespace zarnrtc {
namespace fake {

struct SipEngineState {
    int localPort = 0;
    RegistrationStateDelegate* registration = nullptr;
    CallStateDelegate* calls = nullptr;
};

struct SipConfig {
    int nextCallId = 1;        // CreateCall hands out nextCallId++ ...
    bool forceCallId = false;  // ... unless forced: then forcedCallId every time
    int forcedCallId = 0;
    int nextAccountId = 1;     // MakeRegister hands out nextAccountId++
    std::vector<int> callIds;  // when not empty, CreateCall hands these out first, in order
};

ZARNRTC_FAKE_API SipConfig& sipConfig();
// The most recently constructed live engine, or null.
ZARNRTC_FAKE_API SipEngineState* lastSipEngine();
// Resets the configuration (not the engines).
ZARNRTC_FAKE_API void resetSip();

}  // namespace fake
}  // namespace zarnrtc

#endif
