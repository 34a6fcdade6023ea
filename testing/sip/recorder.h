// Records every delegate callback of one SipEngine, with the thread it came on, and
// lets a test wait for events or act from inside a callback.
#ifndef ZARNRTC_TESTING_SIP_RECORDER_H
#define ZARNRTC_TESTING_SIP_RECORDER_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "SipEngine.h"

namespace siptest {

struct Event {
    // One per delegate callback; a typed kind, so a misspelt one does not compile.
    enum Kind {
        kRegProgress,
        kRegOk,
        kRegClear,
        kRegFailed,
        kMessage,
        kIncoming,
        kState,
        kOffer,
        kEarly,
        kAnswer,
        kDtmf,
        kInfo,
        kMedia,
    };

    Event() = default;
    explicit Event(Kind k, int i = 0, int x = 0, int y = 0, bool v = false)
        : kind(k), id(i), a(x), b(y), video(v) {}
    bool registration() const { return kind <= kRegFailed; }  // id is an account id
    Kind kind = kState;
    int id = 0;  // account or call id
    int a = 0;   // state / code / digit / account id of an incoming call
    int b = 0;   // reason / duration / audio flag
    bool video = false;
    std::string text;   // reason text, SDP, body, from URI
    std::string text2;  // display name (incoming), message body
    std::thread::id thread;
};

class Recorder : public RegistrationStateDelegate, public CallStateDelegate {
  public:
    using Predicate = std::function<bool(const Event&)>;

    // Called on the engine thread after an event is recorded, outside any lock.
    std::function<void(const Event&)> onEvent;

    bool waitFor(const Predicate& match, Event* out = nullptr,
                 std::chrono::milliseconds timeout = std::chrono::seconds(5));
    bool waitKind(Event::Kind kind, int id = -1, Event* out = nullptr,
                  std::chrono::milliseconds timeout = std::chrono::seconds(5));
    bool waitState(int callId, int state,
                   std::chrono::milliseconds timeout = std::chrono::seconds(5));
    std::vector<Event> events();
    std::vector<int> states(int callId);
    int count(Event::Kind kind, int id = -1);
    // All callbacks came on one thread, and it was not `notThis`.
    bool singleThread(std::thread::id notThis);
    void clear();

    void OnRegistrationProgress(int accId) override { add(Event(Event::kRegProgress, accId)); }
    void OnRegistrationSuccess(int accId) override { add(Event(Event::kRegOk, accId)); }
    void OnRegistrationClear(int accId) override { add(Event(Event::kRegClear, accId)); }
    void OnRegistrationFailed(int accId, int code, const char* reason) override {
        add(Event(Event::kRegFailed, accId, code), reason);
    }
    void onMessage(const char* fromUri, const char* message) override;
    void OnIncomingCall(int accId, int callId, const char* display, const char* fromUri,
                        const char* toUri) override;
    void OnCallStateChange(int callId, int state, int reason, const char* text) override {
        add(Event(Event::kState, callId, state, reason), text);
    }
    void OnCallOffer(int callId, const char* sdp, bool audio, bool video) override {
        add(Event(Event::kOffer, callId, 0, audio, video), sdp);
    }
    void OnEarlyMediaSdp(int callId, const char* sdp) override {
        add(Event(Event::kEarly, callId), sdp);
    }
    void OnCallAnswer(int callId, const char* sdp, bool audio, bool video) override {
        add(Event(Event::kAnswer, callId, 0, audio, video), sdp);
    }
    void OnDtmfEvent(int callId, int digit, int durationMs, bool isInfo) override {
        add(Event(Event::kDtmf, callId, digit, durationMs, isInfo));
    }
    void OnInfoEvent(int callId, const char* body) override {
        add(Event(Event::kInfo, callId), body);
    }
    void OnMediaStateChange(int callId, const char* sdp, bool audio, bool video) override {
        add(Event(Event::kMedia, callId, 0, audio, video), sdp);
    }

  private:
    void add(Event e);
    void add(Event e, const char* text);  // a null text is recorded as "null"

    std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<Event> events_;
};

}  // namespace siptest

#endif
