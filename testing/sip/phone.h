// A SipEngine with its recorder, registered at the test's Kamailio.
#ifndef ZARNRTC_TESTING_SIP_PHONE_H
#define ZARNRTC_TESTING_SIP_PHONE_H

#include <memory>
#include <string>

#include "SipEngine.h"
#include "recorder.h"

namespace siptest {

// WebRTC-like bodies with details a rewriting stack would lose.
extern const char* const kOfferSdp;
extern const char* const kAnswerSdp;
extern const char* const kAudioOnlySdp;

struct Phone {
    explicit Phone(int localPort = 0) : engine(std::make_unique<SipEngine>(localPort)) {
        engine->RegisterRegistrationDelegate(&rec);
        engine->RegisterCallStateDelegate(&rec);
    }
    // Registers as the SDK does; true once the registrar accepted it.
    bool registerAt(const std::string& server, const std::string& user,
                    const std::string& password) {
        accId = engine->MakeRegister(user.c_str(), user.c_str(), password.c_str(), server.c_str(),
                                     server.c_str(), "TCP", 600, user.c_str(), false);
        return accId > 0 && rec.waitKind(Event::kRegOk, accId);
    }
    // The callee's id of the incoming call, or 0.
    int incomingCall() {
        Event e;
        return rec.waitKind(Event::kIncoming, -1, &e) ? e.id : 0;
    }

    Recorder rec;  // outlives the engine: declared first
    std::unique_ptr<SipEngine> engine;
    int accId = 0;
};

}  // namespace siptest

#endif
