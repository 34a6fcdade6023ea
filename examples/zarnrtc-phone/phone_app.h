// The phone as an application of the SDK: register, place or answer calls, count
// the frames each call shows, and say how each call and the run ended. Events from
// the engines' threads are queued and handled on the thread that calls run(), so no
// SDK operation runs inside an SDK callback.
#ifndef ZARNRTC_EXAMPLES_PHONE_APP_H
#define ZARNRTC_EXAMPLES_PHONE_APP_H

#include <atomic>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "event_queue.h"
#include "frame_sink.h"
#include "options.h"
#include "zarnrtcimpl.h"

// The exit status of the phone; README lists them.
enum ExitStatus {
    kExitOk = 0,
    kExitBadArguments = 2,
    kExitRegistrationFailed = 3,
    kExitCallFailed = 4,     // not placed, not answered, or ended otherwise than expected
    kExitNoVideo = 5,        // answered, but no remote frame arrived (see docs/phone.md)
    kExitInterrupted = 130,  // a caller stopped by a signal
};

// How one call went, for its summary line.
struct CallRecord {
    int id = -1;
    bool incoming = false;
    long placedMs = -1, ringingMs = -1, answeredMs = -1, endMs = -1;
    FrameFigures local, remote;
    std::string end;  // how it ended, in words
    ExitStatus status = kExitOk;
};

class PhoneApp : public zarnrtc::IRtcEngineEventHandler {
  public:
    enum class Phase { kRegistering, kWaiting, kCalling, kInCall, kDone };

    explicit PhoneApp(const Options& options);
    // Registers, runs until the expected end (or `stop`), prints the summary, and
    // returns the exit status.
    ExitStatus run(const std::atomic<bool>& stop);

    // IRtcEngineEventHandler, on the engines' threads: queued only.
    void onRegistrationState(int accId, int state, const char* reason) override;
    void onMessage(const char*) override {}
    void onIncomingCall(int callId, const char*, const char*) override;
    void onCallStateChange(int callId, int state, int reason) override;
    void onLocalVideoReady(int) override {}
    void onRemoteVideoReady(int callId) override;
    void onUpdatedByLocal(int, bool) override {}
    void onUpdatedByRemote(int, bool) override {}

  private:
    struct Event {
        enum Kind { kRegistration, kIncoming, kState, kRemoteVideo } kind;
        int id = 0, a = 0, b = 0;
        std::string text;
    };

    void handle(const Event& e);
    void onRegistration(int state, const std::string& reason);
    void placeCall();
    void onIncoming(int callId);
    void answerNow();
    void startCall(int callId, bool incoming);
    void attachSinks(int callId);
    void onState(int callId, int state, int reason);
    ExitStatus answeredEnd(std::string* how);
    void onTick();
    void onDeadline();
    void endCall(const std::string& how, ExitStatus status);
    void waitForNextCall();
    void finish(const std::string& how, ExitStatus status);
    ExitStatus runStatus() const;

    void say(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void printCallSummary(const CallRecord& c);
    std::string refusedText() const;
    void printSummary();
    void printJson(const std::string& shots);
    std::string writeSnapshots();  // the list of files written

    const Options o_;
    zarnrtc::ZarnRtcImpl* engine_ = nullptr;
    zarnrtc::examples::EventQueue<Event> events_;
    FrameSink local_, remote_;

    Phase phase_ = Phase::kRegistering;
    long deadlineMs_ = 0;
    long registeredMs_ = -1;
    CallRecord call_;       // the call in hand (id -1: none yet)
    long answerAtMs_ = -1;  // --answer-delay: when to answer
    bool firstLocalSaid_ = false, firstRemoteSaid_ = false;
    long lastTickMs_ = 0, lastLocalFrames_ = 0, lastRemoteFrames_ = 0;  // the fps lines
    std::vector<CallRecord> ended_;
    std::set<int> ringing_;       // calls that came while busy, not ended yet
    std::map<int, int> refused_;  // incoming calls ended before an answer: count by status
    std::string end_;
    ExitStatus status_ = kExitCallFailed;
};

#endif
