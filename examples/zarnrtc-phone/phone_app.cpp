#include "phone_app.h"

#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <list>

#include "sdkconstants.h"

namespace {

using Clock = std::chrono::steady_clock;
const Clock::time_point kStart = Clock::now();

long nowMs() {
    return long(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - kStart).count());
}

constexpr long kNever = LONG_MAX;
// An answered call that lasted this long without one remote frame had no video.
constexpr long kNoVideoAfterMs = 3000;
// The answering side waits for the far end's hang-up, which comes after the
// caller's own --duration: it leaves this much slack.
constexpr long kAnswererSlackMs = 15000;
// A caller that gave up while it rang: not a call this phone refused.
constexpr int kCancelledStatus = 487;

// What each target of a forwarded call is asked for.
constexpr bool kForwardVideo = true;
constexpr bool kForwardHwAcceleration = false;
constexpr int kForwardWidth = 640, kForwardHeight = 480, kForwardFps = 15;
constexpr int kForwardBitrateKbps = 1000;
constexpr const char* kForwardDeviceType = "dev_door";

const char* stateName(int s) {
    static const char* names[] = {"new",      "cancelled", "failed",   "rejected", "early media",
                                  "ringing",  "answered",  "hang-up",  "pausing",  "paused",
                                  "resuming", "resumed",   "updating", "updated"};
    return s >= 0 && s < 14 ? names[s] : "unknown";
}

std::string jsonText(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\')
            out += '\\', out += char(c);
        else if (c < 0x20)
            out +=
                "\\u00" + std::string(1, "0123456789abcdef"[c >> 4]) + "0123456789abcdef"[c & 15];
        else
            out += char(c);
    }
    return out + "\"";
}

double fps(const FrameFigures& f, const CallRecord& c) {
    long talkMs = c.answeredMs >= 0 && c.endMs > c.answeredMs ? c.endMs - c.answeredMs : 0;
    return talkMs > 0 ? f.frames * 1000.0 / talkMs : 0;
}

}  // namespace

PhoneApp::PhoneApp(const Options& options)
    : o_(options),
      local_(nowMs, !options.snapshotDir.empty()),
      remote_(nowMs, !options.snapshotDir.empty()) {}

// ---- Engine threads: queue only ----

void PhoneApp::onRegistrationState(int accId, int state, const char* reason) {
    events_.push({Event::kRegistration, accId, state, 0, reason ? reason : ""});
}
void PhoneApp::onIncomingCall(int callId, const char*, const char*) {
    events_.push({Event::kIncoming, callId, 0, 0, ""});
}
void PhoneApp::onCallStateChange(int callId, int state, int reason) {
    events_.push({Event::kState, callId, state, reason, ""});
}
void PhoneApp::onRemoteVideoReady(int callId) {
    events_.push({Event::kRemoteVideo, callId, 0, 0, ""});
}

// ---- The application's thread ----

ExitStatus PhoneApp::run(const std::atomic<bool>& stop) {
    engine_ = static_cast<zarnrtc::ZarnRtcImpl*>(zarnrtc::ZarnRtc::createZarnRtcEngine());
    engine_->setZarnRtcEvent(this);
    if (engine_->registerAccount(o_.registrar.c_str(), o_.user.c_str(), o_.password.c_str(),
                                 o_.displayName.c_str()) < 0) {
        std::fprintf(stderr, "zarnrtc-phone: the SIP engine refused the account\n");
        return kExitRegistrationFailed;
    }
    deadlineMs_ = nowMs() + o_.registerTimeoutS * 1000L;
    while (phase_ != Phase::kDone) {
        if (stop) {
            if (call_.id > 0) engine_->hangup(call_.id);
            if (o_.serving())  // the normal way for a monitor to stop
                finish("stopped after " + std::to_string(ended_.size()) + " calls", runStatus());
            else
                finish("interrupted", kExitInterrupted);
            break;
        }
        Event e;
        if (events_.pop(e, std::chrono::milliseconds(100))) handle(e);
        onTick();
        if (phase_ != Phase::kDone && nowMs() >= deadlineMs_) onDeadline();
    }
    // Let the engines finish the hang-up before the process goes.
    for (long until = nowMs() + 500; nowMs() < until;) {
        Event e;
        events_.pop(e, std::chrono::milliseconds(50));
    }
    printSummary();
    return status_;
}

void PhoneApp::handle(const Event& e) {
    switch (e.kind) {
        case Event::kRegistration:
            return onRegistration(e.a, e.text);
        case Event::kIncoming:
            return onIncoming(e.id);
        case Event::kState:
            return onState(e.id, e.a, e.b);
        case Event::kRemoteVideo:
            return say("remote video ready (call %d)", e.id);
    }
}

void PhoneApp::onRegistration(int state, const std::string& reason) {
    if (state == zarnrtc::kRegistrationSuccess) {
        if (phase_ != Phase::kRegistering) return say("registered again");
        registeredMs_ = nowMs();
        say("registered as %s at %s", o_.user.c_str(), o_.registrar.c_str());
        if (o_.autoAnswer)
            waitForNextCall();
        else
            placeCall();
    } else if (state == zarnrtc::kRegistrationFailed) {
        if (phase_ == Phase::kRegistering)
            finish("registration failed: " + reason, kExitRegistrationFailed);
        else
            say("registration lost: %s", reason.c_str());
    }
}

void PhoneApp::placeCall() {
    long placed = nowMs();
    if (!o_.forward.empty()) {
        std::list<const char*> targets;
        for (const std::string& t : o_.forward) targets.push_back(t.c_str());
        startCall(-1, false);  // the winner's id comes with its answer
        engine_->callForward(targets, o_.displayName.c_str(), kForwardVideo, kForwardHwAcceleration,
                             kForwardWidth, kForwardHeight, kForwardFps, kForwardBitrateKbps,
                             kForwardDeviceType);
        say("ringing %zu targets at once", o_.forward.size());
    } else {
        int id = engine_->call(o_.callUri.c_str());
        if (id < 0) return finish("the call could not be placed", kExitCallFailed);
        startCall(id, false);
        attachSinks(id);
        say("INVITE sent to %s (call %d)", o_.callUri.c_str(), id);
    }
    call_.placedMs = placed;
    phase_ = Phase::kCalling;
    deadlineMs_ = nowMs() + o_.answerTimeoutS * 1000L;
}

void PhoneApp::onIncoming(int callId) {
    if (phase_ != Phase::kWaiting) {
        ringing_.insert(callId);
        return say("incoming call %d while busy: ignored", callId);
    }
    startCall(callId, true);
    phase_ = Phase::kCalling;
    deadlineMs_ = nowMs() + o_.answerTimeoutS * 1000L;
    if (o_.answerDelayMs > 0) {
        say("incoming call %d, answering in %d ms", callId, o_.answerDelayMs);
        answerAtMs_ = nowMs() + o_.answerDelayMs;
    } else {
        say("incoming call %d, answering", callId);
        answerNow();
    }
}

void PhoneApp::answerNow() {
    answerAtMs_ = -1;
    engine_->answer(call_.id);
    attachSinks(call_.id);
}

void PhoneApp::startCall(int callId, bool incoming) {
    call_ = CallRecord();
    call_.id = callId;
    call_.incoming = incoming;
    local_.startCall();
    remote_.startCall();
    firstLocalSaid_ = firstRemoteSaid_ = false;
    lastTickMs_ = nowMs();
    lastLocalFrames_ = lastRemoteFrames_ = 0;
}

void PhoneApp::attachSinks(int callId) {
    engine_->setupLocalVideo(callId, &local_);
    engine_->setupRemoteVideo(callId, &remote_);
}

void PhoneApp::onState(int callId, int state, int reason) {
    // Another call: a forwarding target cancelled, the late end of a call we gave up,
    // or one that came while we were busy.
    if ((call_.id > 0 && callId != call_.id) || phase_ == Phase::kWaiting ||
        phase_ == Phase::kRegistering) {
        say("call %d: %s (%d)", callId, stateName(state), reason);
        if (state == zarnrtc::kHangup && ringing_.erase(callId) && reason != kCancelledStatus)
            ++refused_[reason];
        return;
    }
    long now = nowMs();
    if (state == zarnrtc::kRinging && call_.ringingMs < 0) {
        call_.ringingMs = now;
        say("ringing (call %d)", callId);
    } else if (state == zarnrtc::kAnswered && call_.answeredMs < 0) {
        call_.answeredMs = now;
        if (call_.id < 0) {  // forwarding: the winner
            call_.id = callId;
            attachSinks(callId);
        }
        say("answered (call %d)", callId);
        phase_ = Phase::kInCall;
        deadlineMs_ = now + o_.durationS * 1000L + (o_.autoAnswer ? kAnswererSlackMs : 0);
    } else if (state == zarnrtc::kHangup) {
        call_.endMs = now;
        answerAtMs_ = -1;
        say("hang-up by the far end (call %d, reason %d)", callId, reason);
        std::string how;
        if (call_.answeredMs >= 0) {
            ExitStatus status = answeredEnd(&how);
            if (status == kExitOk)
                how = o_.autoAnswer ? "the far end hung up" : "the far end hung up before the end";
            endCall(how, status);
        } else if (o_.expectCancel) {
            endCall("cancelled while ringing, as expected", kExitOk);
        } else {
            if (call_.incoming && reason != kCancelledStatus) ++refused_[reason];
            endCall("the call ended before it was answered (" + std::to_string(reason) + ")",
                    kExitCallFailed);
        }
    } else {
        say("call %d: %s (%d)", callId, stateName(state), reason);
    }
}

ExitStatus PhoneApp::answeredEnd(std::string* how) {
    call_.remote = remote_.figures();
    if (call_.remote.frames == 0 && call_.endMs - call_.answeredMs >= kNoVideoAfterMs) {
        *how = "answered but no video arrived";
        return kExitNoVideo;
    }
    return kExitOk;
}

void PhoneApp::onTick() {
    long t = nowMs();
    if (answerAtMs_ >= 0 && t >= answerAtMs_) {
        say("answering call %d", call_.id);
        answerNow();
    }
    if (phase_ != Phase::kCalling && phase_ != Phase::kInCall) return;
    FrameFigures local = local_.figures(), remote = remote_.figures();
    if (!firstLocalSaid_ && local.frames > 0) {
        firstLocalSaid_ = true;
        say("first local frame %s", local.size().c_str());
    }
    if (!firstRemoteSaid_ && remote.frames > 0) {
        firstRemoteSaid_ = true;
        say("first remote frame %s", remote.size().c_str());
    }
    if (phase_ == Phase::kInCall && t - lastTickMs_ >= 1000) {
        say("fps local %ld, remote %ld", local.frames - lastLocalFrames_,
            remote.frames - lastRemoteFrames_);
        lastLocalFrames_ = local.frames;
        lastRemoteFrames_ = remote.frames;
        lastTickMs_ = t;
    }
}

void PhoneApp::onDeadline() {
    call_.endMs = nowMs();
    switch (phase_) {
        case Phase::kRegistering:
            return finish("registrar " + o_.registrar + " did not answer", kExitRegistrationFailed);
        case Phase::kWaiting:
            return finish("no call arrived", kExitCallFailed);
        case Phase::kCalling:
            if (call_.id > 0) engine_->hangup(call_.id);
            return endCall("the call was not answered", kExitCallFailed);
        case Phase::kInCall: {
            engine_->hangup(call_.id);
            if (o_.autoAnswer) return endCall("the far end did not hang up", kExitCallFailed);
            say("hang-up (call %d)", call_.id);
            std::string how;
            ExitStatus status = answeredEnd(&how);
            if (status == kExitOk) how = "hung up after " + std::to_string(o_.durationS) + " s";
            return endCall(how, status);
        }
        case Phase::kDone:
            return;
    }
}

// The call in hand ended: say how, then serve the next one or stop.
void PhoneApp::endCall(const std::string& how, ExitStatus status) {
    call_.end = how;
    call_.status = status;
    call_.local = local_.figures();
    call_.remote = remote_.figures();
    ended_.push_back(call_);
    printCallSummary(call_);
    if (o_.autoAnswer && (o_.serving() || int(ended_.size()) < o_.maxCalls))
        waitForNextCall();
    else
        finish(how, runStatus());
}

void PhoneApp::waitForNextCall() {
    call_ = CallRecord();
    answerAtMs_ = -1;
    phase_ = Phase::kWaiting;
    deadlineMs_ = o_.serving() ? kNever : nowMs() + o_.answerTimeoutS * 1000L;
    say("waiting for a call");
}

void PhoneApp::finish(const std::string& how, ExitStatus status) {
    end_ = how;
    status_ = status;
    phase_ = Phase::kDone;
}

// The run's status: that of the last call that did not end as expected, else 0.
ExitStatus PhoneApp::runStatus() const {
    ExitStatus status = kExitOk;
    for (const CallRecord& c : ended_)
        if (c.status != kExitOk) status = c.status;
    return status;
}

// ---- What it prints ----

void PhoneApp::say(const char* fmt, ...) {
    if (o_.quiet) return;
    std::printf("%7ld ms  ", nowMs());
    va_list ap;
    va_start(ap, fmt);
    std::vprintf(fmt, ap);
    va_end(ap);
    std::printf("\n");
    std::fflush(stdout);
}

void PhoneApp::printCallSummary(const CallRecord& c) {
    std::printf("call %d summary: %s", c.id, c.end.c_str());
    if (c.answeredMs >= 0) {
        std::printf("; answered %.1f s, remote video %ld frames %s, first at %ld ms, %.0f fps",
                    (c.endMs - c.answeredMs) / 1000.0, c.remote.frames, c.remote.size().c_str(),
                    c.remote.firstMs, fps(c.remote, c));
    }
    std::printf(" (exit %d)\n", c.status);
    std::fflush(stdout);
}

std::string PhoneApp::refusedText() const {
    int count = 0;
    std::string statuses;
    for (const auto& r : refused_) {
        count += r.second;
        statuses += (statuses.empty() ? "" : ", ") + std::to_string(r.first) +
                    (r.second > 1 ? " x" + std::to_string(r.second) : "");
    }
    if (!count) return "";
    return "refused " + std::to_string(count) + (count == 1 ? " call: " : " calls: ") + statuses;
}

void PhoneApp::printSummary() {
    std::string shots = writeSnapshots();
    // The figures of the last call (or of the one in hand when the run stopped).
    CallRecord last = ended_.empty() ? call_ : ended_.back();
    if (ended_.empty()) last.local = local_.figures(), last.remote = remote_.figures();
    int answered = 0, unexpected = 0;
    for (const CallRecord& c : ended_) {
        answered += c.answeredMs >= 0;
        unexpected += c.status != kExitOk;
    }
    if (o_.json) return printJson(shots);
    std::printf("summary: %s (exit %d)\n", end_.c_str(), status_);
    std::printf("  registered %ld ms, placed %ld ms, ringing %ld ms, answered %ld ms\n",
                registeredMs_, last.placedMs, last.ringingMs, last.answeredMs);
    std::printf("  local video %ld frames %s, first at %ld ms\n", last.local.frames,
                last.local.size().c_str(), last.local.firstMs);
    std::printf("  remote video %ld frames %s, first at %ld ms", last.remote.frames,
                last.remote.size().c_str(), last.remote.firstMs);
    if (fps(last.remote, last) > 0) std::printf(", %d fps", int(fps(last.remote, last)));
    std::printf("\n");
    if (o_.autoAnswer)
        std::printf("  calls: %zu (answered %d, not as expected %d)\n", ended_.size(), answered,
                    unexpected);
    if (!refused_.empty()) std::printf("  %s\n", refusedText().c_str());
    if (!shots.empty()) std::printf("  snapshots:\n%s", shots.c_str());
    std::fflush(stdout);
}

void PhoneApp::printJson(const std::string& shots) {
    std::string calls;
    for (const CallRecord& c : ended_) {
        char figures[512];
        std::snprintf(figures, sizeof figures,
                      "\"placed_ms\":%ld,\"ringing_ms\":%ld,\"answered_ms\":%ld,\"ended_ms\":%ld,"
                      "\"local_frames\":%ld,\"remote_frames\":%ld,\"remote_size\":\"%s\","
                      "\"first_remote_ms\":%ld,\"remote_fps\":%.1f",
                      c.placedMs, c.ringingMs, c.answeredMs, c.endMs, c.local.frames,
                      c.remote.frames, c.remote.size().c_str(), c.remote.firstMs, fps(c.remote, c));
        calls += std::string(calls.empty() ? "" : ",") + "{\"id\":" + std::to_string(c.id) +
                 ",\"incoming\":" + (c.incoming ? "true" : "false") +
                 ",\"end\":" + jsonText(c.end) + ",\"exit\":" + std::to_string(c.status) + "," +
                 figures + "}";
    }
    std::string refused;
    for (const auto& r : refused_)
        refused += (refused.empty() ? "\"" : ",\"") + std::to_string(r.first) +
                   "\":" + std::to_string(r.second);
    std::printf(
        "{\"summary\":%s,\"exit\":%d,\"registered_ms\":%ld,\"calls\":[%s],"
        "\"refused\":{%s},\"snapshots\":%s}\n",
        jsonText(end_).c_str(), status_, registeredMs_, calls.c_str(), refused.c_str(),
        jsonText(shots).c_str());
    std::fflush(stdout);
}

std::string PhoneApp::writeSnapshots() {
    if (o_.snapshotDir.empty()) return "";
    const std::string base = o_.snapshotDir + "/" + o_.user;
    struct {
        const char* name;
        Picture pic;
    } pics[] = {{"-local-first.png", local_.first()},
                {"-local-last.png", local_.last()},
                {"-remote-first.png", remote_.first()},
                {"-remote-last.png", remote_.last()}};
    std::string list;
    for (auto& p : pics) {
        std::string path = base + p.name;
        if (writePng(path, p.pic)) list += "  " + path + "\n";
    }
    return list;
}
