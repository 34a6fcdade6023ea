// Smallest application of the installed SDK: one engine, one account, one call,
// with the fake engines standing in for the device's. The engine events are fired
// through the fake SIP engine, as the real one would on its own thread.
#include <cstdio>

#include "fake_sip.h"
#include "zarnrtc.h"

namespace {

class Handler : public zarnrtc::IRtcEngineEventHandler {
  public:
    void onRegistrationState(int accId, int state, const char* reason) override {
        std::printf("registration: account %d state %d%s%s\n", accId, state, reason ? " " : "",
                    reason ? reason : "");
        if (state == 1) registeredAccount = accId;
    }
    void onMessage(const char* message) override { std::printf("message: %s\n", message); }
    void onIncomingCall(int callId, const char* name, const char* uri) override {
        std::printf("incoming: %d %s %s\n", callId, name ? name : "", uri ? uri : "");
    }
    void onCallStateChange(int callId, int stateCode, int reasonCode) override {
        std::printf("call %d: state %d reason %d\n", callId, stateCode, reasonCode);
        if (stateCode == zarnrtc::kRinging && reasonCode == 180) ringingCall = callId;
    }
    void onLocalVideoReady(int) override {}
    void onRemoteVideoReady(int) override {}
    void onUpdatedByLocal(int, bool) override {}
    void onUpdatedByRemote(int, bool) override {}

    int registeredAccount = -1;
    int ringingCall = -1;
};

}  // namespace

int main() {
    Handler handler;
    zarnrtc::ZarnRtc* engine = zarnrtc::ZarnRtc::createZarnRtcEngine();
    if (!engine) {
        std::puts("FAIL: no engine");
        return 1;
    }
    engine->setZarnRtcEvent(&handler);

    zarnrtc::fake::SipEngineState* sip = zarnrtc::fake::lastSipEngine();
    if (!sip || !sip->registration || !sip->calls) {
        std::puts("FAIL: the SDK did not start a SIP engine");
        return 1;
    }

    int accId = engine->registerAccount("sip.example.org", "door1", "secret", "Front door");
    sip->registration->OnRegistrationSuccess(accId);

    int callId = engine->call("sip:door@example.org");
    if (callId < 0) {
        std::puts("FAIL: call was refused");
        return 1;
    }
    sip->calls->OnCallStateChange(callId, zarnrtc::kRinging, 180, "Ringing");

    engine->setZarnRtcEvent(nullptr);  // the engine outlives the handler
    bool ok = accId >= 0 && handler.registeredAccount == accId && handler.ringingCall == callId;
    std::printf("%s: registered account %d, call %d ringing\n", ok ? "OK" : "FAIL", accId, callId);
    return ok ? 0 : 1;
}
