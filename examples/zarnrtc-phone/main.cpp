// zarnrtc-phone: a command-line door station / indoor monitor built only on the
// SDK's public headers. It prints one timeline line per event, in milliseconds
// since start, then a summary; the exit status tells whether the call reached the
// expected end.
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <list>
#include <mutex>
#include <string>
#include <vector>

#include "event_queue.h"
#include "options.h"
#include "snapshot.h"
#include "zarnrtcimpl.h"

namespace {

using Clock = std::chrono::steady_clock;
const Clock::time_point kStart = Clock::now();

long nowMs() {
    return long(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - kStart).count());
}

// Events from the engines' threads, handled on the main thread.
struct Event {
    enum Kind { Registration, Incoming, State, RemoteVideo } kind;
    int id = 0, a = 0, b = 0;
    std::string text;
};

using EventQueue = zarnrtc::examples::EventQueue<Event>;

class Handler : public zarnrtc::IRtcEngineEventHandler {
  public:
    explicit Handler(EventQueue& q) : q_(q) {}
    void onRegistrationState(int accId, int state, const char* reason) override {
        q_.push({Event::Registration, accId, state, 0, reason ? reason : ""});
    }
    void onMessage(const char*) override {}
    void onIncomingCall(int callId, const char*, const char*) override {
        q_.push({Event::Incoming, callId, 0, 0, ""});
    }
    void onCallStateChange(int callId, int state, int reason) override {
        q_.push({Event::State, callId, state, reason, ""});
    }
    void onLocalVideoReady(int) override {}
    void onRemoteVideoReady(int callId) override {
        q_.push({Event::RemoteVideo, callId, 0, 0, ""});
    }
    void onUpdatedByLocal(int, bool) override {}
    void onUpdatedByRemote(int, bool) override {}

  private:
    EventQueue& q_;
};

class FrameSink : public zarnrtc::VideoSink {
  public:
    void OnFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) override {
        if (!frame) return;
        long t = nowMs();
        std::lock_guard<std::mutex> lock(m_);
        if (frames_ == 0) {
            firstMs_ = t;
            width_ = frame->width();
            height_ = frame->height();
            if (keep_) first_ = copyFrame(frame.get());
        }
        ++frames_;
        if (keep_ && t - lastCopyMs_ >= 500) {  // the last frame, refreshed twice a second
            last_ = copyFrame(frame.get());
            lastCopyMs_ = t;
        }
    }
    void keepPictures(bool keep) { keep_ = keep; }
    long frames() {
        std::lock_guard<std::mutex> lock(m_);
        return frames_;
    }
    long firstMs() {
        std::lock_guard<std::mutex> lock(m_);
        return frames_ ? firstMs_ : -1;
    }
    std::string size() {
        std::lock_guard<std::mutex> lock(m_);
        return std::to_string(width_) + "x" + std::to_string(height_);
    }
    Picture first() {
        std::lock_guard<std::mutex> lock(m_);
        return first_;
    }
    Picture last() {
        std::lock_guard<std::mutex> lock(m_);
        return last_.width ? last_ : first_;
    }

  private:
    std::mutex m_;
    bool keep_ = false;
    long frames_ = 0, firstMs_ = -1, lastCopyMs_ = -1000000;
    int width_ = 0, height_ = 0;
    Picture first_, last_;
};

const char* stateName(int s) {
    static const char* names[] = {"new",      "cancelled", "failed",   "rejected", "early media",
                                  "ringing",  "answered",  "hang-up",  "pausing",  "paused",
                                  "resuming", "resumed",   "updating", "updated"};
    return s >= 0 && s < 14 ? names[s] : "unknown";
}

std::atomic<bool> interrupted{false};

}  // namespace

int main(int argc, char** argv) {
    Options o;
    std::string error;
    if (!parse(argc, argv, o, error)) {
        std::fprintf(stderr, "zarnrtc-phone: %s\n", error.c_str());
        usage(stderr);
        return 2;
    }
    if (!o.snapshotDir.empty()) {
        mkdir(o.snapshotDir.c_str(), 0755);
        struct stat st;
        if (stat(o.snapshotDir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            std::fprintf(stderr, "zarnrtc-phone: cannot use snapshot directory %s\n",
                         o.snapshotDir.c_str());
            return 2;
        }
    }
    std::signal(SIGINT, [](int) { interrupted = true; });
    std::signal(SIGTERM, [](int) { interrupted = true; });

    auto say = [&](const char* fmt, auto... args) {
        if (o.quiet) return;
        std::printf("%7ld ms  ", nowMs());
        std::printf(fmt, args...);
        std::printf("\n");
        std::fflush(stdout);
    };

    EventQueue events;
    Handler handler(events);
    auto* engine = static_cast<zarnrtc::ZarnRtcImpl*>(zarnrtc::ZarnRtc::createZarnRtcEngine());
    engine->setZarnRtcEvent(&handler);
    int accId = engine->registerAccount(o.registrar.c_str(), o.user.c_str(), o.password.c_str(),
                                        o.displayName.c_str());
    if (accId < 0) {
        std::fprintf(stderr, "zarnrtc-phone: the SIP engine refused the account\n");
        return 3;
    }

    FrameSink local, remote;
    local.keepPictures(!o.snapshotDir.empty());
    remote.keepPictures(!o.snapshotDir.empty());

    enum Phase { Registering, Waiting, Calling, InCall, Done } phase = Registering;
    int exitCode = 1;
    std::string endText;
    int callId = -1;
    long registeredMs = -1, placedMs = -1, ringingMs = -1, answeredMs = -1, endMs = -1;
    long phaseDeadline = nowMs() + o.registerTimeoutS * 1000L;
    long lastTick = nowMs();
    long lastLocal = 0, lastRemote = 0;
    bool wantEndByUs = !o.autoAnswer;
    long answerAtMs = -1;
    // A monitor serves call after call; each one's end is counted, not the process's.
    const bool serving = o.autoAnswer && o.maxCalls == 0;
    const long kNever = std::numeric_limits<long>::max();
    int callsEnded = 0, callsAnswered = 0, callsFailed = 0;
    auto waitForNextCall = [&]() {
        callId = -1;
        ringingMs = answeredMs = answerAtMs = -1;
        phase = Waiting;
        phaseDeadline = serving ? kNever : nowMs() + o.answerTimeoutS * 1000L;
        say("waiting for a call");
    };
    // The end of one answering call: go on serving, or stop after --calls.
    auto answeringCallEnded = [&](bool asExpected) {
        ++callsEnded;
        if (answeredMs >= 0) ++callsAnswered;
        if (!asExpected) ++callsFailed;
        if (o.autoAnswer && (serving || callsEnded < o.maxCalls)) {
            say("call %d ended: %s", callId, endText.c_str());
            waitForNextCall();
        } else {
            exitCode = callsFailed ? 4 : 0;
            phase = Done;
        }
    };

    auto attachSinks = [&](int id) {
        engine->setupLocalVideo(id, &local);
        engine->setupRemoteVideo(id, &remote);
    };

    while (phase != Done) {
        if (interrupted) {
            if (callId > 0) engine->hangup(callId);
            if (serving) {  // the normal way for a monitor to stop
                endText = "stopped after " + std::to_string(callsEnded) + " calls";
                exitCode = callsFailed ? 4 : 0;
            } else {
                endText = "interrupted";
                exitCode = 130;
            }
            break;
        }
        Event e;
        if (events.pop(e, std::chrono::milliseconds(100))) {
            switch (e.kind) {
                case Event::Registration:
                    if (e.a == 1 && phase == Registering) {
                        registeredMs = nowMs();
                        say("registered as %s at %s", o.user.c_str(), o.registrar.c_str());
                        if (o.autoAnswer) {
                            waitForNextCall();
                        } else {
                            placedMs = nowMs();
                            if (!o.forward.empty()) {
                                std::list<const char*> targets;
                                for (auto& t : o.forward) targets.push_back(t.c_str());
                                engine->callForward(targets, o.displayName.c_str(), true, false,
                                                    640, 480, 15, 1000, "dev_door");
                                say("ringing %zu targets at once", o.forward.size());
                            } else {
                                callId = engine->call(o.callUri.c_str());
                                if (callId < 0) {
                                    endText = "the call could not be placed";
                                    exitCode = 4;
                                    phase = Done;
                                    break;
                                }
                                attachSinks(callId);
                                say("INVITE sent to %s (call %d)", o.callUri.c_str(), callId);
                            }
                            phase = Calling;
                            phaseDeadline = nowMs() + o.answerTimeoutS * 1000L;
                        }
                    } else if (e.a == 3 && phase == Registering) {
                        endText = "registration failed: " + e.text;
                        exitCode = 3;
                        phase = Done;
                    } else if (e.a == 3) {
                        say("registration lost: %s", e.text.c_str());
                    } else if (e.a == 1) {
                        say("registered again");
                    }
                    break;
                case Event::Incoming:
                    if (phase == Waiting) {
                        callId = e.id;
                        phase = Calling;
                        phaseDeadline = nowMs() + o.answerTimeoutS * 1000L;
                        if (o.answerDelayMs > 0) {
                            say("incoming call %d, answering in %d ms", callId, o.answerDelayMs);
                            answerAtMs = nowMs() + o.answerDelayMs;
                        } else {
                            say("incoming call %d, answering", callId);
                            engine->answer(callId);
                            attachSinks(callId);
                        }
                    } else {
                        say("incoming call %d while busy: ignored", e.id);
                    }
                    break;
                case Event::State:
                    // A cancelled forwarding target, or the late end of a call we gave up.
                    if ((callId > 0 && e.id != callId) || phase == Waiting) {
                        say("call %d: %s (%d)", e.id, stateName(e.a), e.b);
                        break;
                    }
                    if (e.a == zarnrtc::kRinging && ringingMs < 0) {
                        ringingMs = nowMs();
                        say("ringing (call %d)", e.id);
                    } else if (e.a == zarnrtc::kAnswered && answeredMs < 0) {
                        answeredMs = nowMs();
                        if (callId < 0) {  // forwarding: the winner
                            callId = e.id;
                            attachSinks(callId);
                        }
                        say("answered (call %d)", e.id);
                        phase = InCall;
                        // The answering side waits for the far end's hang-up, which
                        // comes after the caller's own --duration: leave it slack.
                        phaseDeadline = nowMs() + o.durationS * 1000L + (wantEndByUs ? 0 : 15000L);
                    } else if (e.a == zarnrtc::kHangup) {
                        endMs = nowMs();
                        say("hang-up by the far end (call %d, reason %d)", e.id, e.b);
                        if (answeredMs >= 0 && !wantEndByUs) {
                            endText = "the far end hung up";
                            exitCode = 0;
                        } else if (answeredMs >= 0) {
                            endText = "the far end hung up before the end";
                            exitCode = 0;
                        } else if (o.expectCancel) {
                            endText = "cancelled while ringing, as expected";
                            exitCode = 0;
                        } else {
                            endText = "the call ended before it was answered";
                            exitCode = 4;
                        }
                        answerAtMs = -1;
                        if (o.autoAnswer)
                            answeringCallEnded(exitCode == 0);
                        else
                            phase = Done;
                    } else if (e.a == zarnrtc::kRejected || e.a == zarnrtc::kFailed ||
                               e.a == zarnrtc::kCancel) {
                        say("call %d %s (%d)", e.id, stateName(e.a), e.b);
                    } else {
                        say("call %d: %s (%d)", e.id, stateName(e.a), e.b);
                    }
                    break;
                case Event::RemoteVideo:
                    say("remote video ready (call %d)", e.id);
                    break;
            }
            continue;
        }
        long t = nowMs();
        if (answerAtMs >= 0 && t >= answerAtMs) {
            answerAtMs = -1;
            say("answering call %d", callId);
            engine->answer(callId);
            attachSinks(callId);
        }
        if (phase == InCall && t - lastTick >= 1000) {
            long l = local.frames(), r = remote.frames();
            say("fps local %ld, remote %ld", l - lastLocal, r - lastRemote);
            lastLocal = l;
            lastRemote = r;
            lastTick = t;
        }
        static bool firstLocal = false, firstRemote = false;
        if (!firstLocal && local.firstMs() >= 0) {
            firstLocal = true;
            say("first local frame %s", local.size().c_str());
        }
        if (!firstRemote && remote.firstMs() >= 0) {
            firstRemote = true;
            say("first remote frame %s", remote.size().c_str());
        }
        if (t >= phaseDeadline) {
            switch (phase) {
                case Registering:
                    endText = "registrar " + o.registrar + " did not answer";
                    exitCode = 3;
                    phase = Done;
                    break;
                case Waiting:
                    endText = "no call arrived";
                    exitCode = 4;
                    phase = Done;
                    break;
                case Calling:
                    endText = "the call was not answered";
                    exitCode = 4;
                    if (callId > 0) engine->hangup(callId);
                    if (o.autoAnswer)
                        answeringCallEnded(false);
                    else
                        phase = Done;
                    break;
                case InCall:
                    if (wantEndByUs) {
                        engine->hangup(callId);
                        endMs = nowMs();
                        say("hang-up (call %d)", callId);
                        endText = "hung up after " + std::to_string(o.durationS) + " s";
                        exitCode = 0;
                        phase = Done;
                    } else {
                        endText = "the far end did not hang up";
                        exitCode = 4;
                        engine->hangup(callId);
                        answeringCallEnded(false);
                    }
                    break;
                case Done:
                    break;
            }
        }
    }

    // Let the engines finish the hang-up before the process goes.
    {
        Event e;
        long until = nowMs() + 500;
        while (nowMs() < until) events.pop(e, std::chrono::milliseconds(50));
    }

    std::string shots;
    if (!o.snapshotDir.empty()) {
        const std::string base = o.snapshotDir + "/" + o.user;
        struct {
            const char* name;
            Picture pic;
        } pics[] = {{"-local-first.png", local.first()},
                    {"-local-last.png", local.last()},
                    {"-remote-first.png", remote.first()},
                    {"-remote-last.png", remote.last()}};
        for (auto& p : pics) {
            std::string path = base + p.name;
            if (writePng(path, p.pic)) shots += "  " + path + "\n";
        }
    }

    double talkS = answeredMs >= 0 && endMs > answeredMs ? (endMs - answeredMs) / 1000.0 : 0;
    std::printf("summary: %s (exit %d)\n", endText.c_str(), exitCode);
    std::printf("  registered %ld ms, placed %ld ms, ringing %ld ms, answered %ld ms\n",
                registeredMs, placedMs, ringingMs, answeredMs);
    std::printf("  local video %ld frames %s, first at %ld ms\n", local.frames(),
                local.size().c_str(), local.firstMs());
    std::printf(
        "  remote video %ld frames %s, first at %ld ms%s\n", remote.frames(), remote.size().c_str(),
        remote.firstMs(),
        talkS > 0 ? (", " + std::to_string(int(remote.frames() / talkS)) + " fps").c_str() : "");
    if (o.autoAnswer)
        std::printf("  calls: %d (answered %d, not as expected %d)\n", callsEnded, callsAnswered,
                    callsFailed);
    if (!shots.empty()) std::printf("  snapshots:\n%s", shots.c_str());
    std::fflush(stdout);
    // The engine lives until the process ends by design; leave without unwinding it.
    std::_Exit(exitCode);
}
