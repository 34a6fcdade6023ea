#include "recorder.h"

namespace siptest {

namespace {
std::string str(const char* s) {
    return s ? s : "<null>";
}
}  // namespace

void Recorder::add(Event e) {
    e.thread = std::this_thread::get_id();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(e);
    }
    cv_.notify_all();
    if (onEvent) onEvent(e);
}

bool Recorder::waitFor(const Predicate& match, Event* out, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    const Event* found = nullptr;
    cv_.wait_for(lock, timeout, [&] {
        for (const Event& e : events_) {
            if (match(e)) {
                found = &e;
                return true;
            }
        }
        return false;
    });
    if (found && out) *out = *found;
    return found != nullptr;
}

bool Recorder::waitKind(const std::string& kind, int id, Event* out,
                        std::chrono::milliseconds timeout) {
    return waitFor([&](const Event& e) { return e.kind == kind && (id < 0 || e.id == id); }, out,
                   timeout);
}

bool Recorder::waitState(int callId, int state, std::chrono::milliseconds timeout) {
    return waitFor(
        [&](const Event& e) { return e.kind == "state" && e.id == callId && e.a == state; },
        nullptr, timeout);
}

std::vector<Event> Recorder::events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
}

std::vector<int> Recorder::states(int callId) {
    std::vector<int> out;
    for (const Event& e : events())
        if (e.kind == "state" && e.id == callId) out.push_back(e.a);
    return out;
}

int Recorder::count(const std::string& kind, int id) {
    int n = 0;
    for (const Event& e : events())
        if (e.kind == kind && (id < 0 || e.id == id)) ++n;
    return n;
}

bool Recorder::singleThread(std::thread::id notThis) {
    std::vector<Event> all = events();
    for (const Event& e : all)
        if (e.thread == notThis || e.thread != all.front().thread) return false;
    return true;
}

void Recorder::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.clear();
}

void Recorder::OnRegistrationFailed(int accId, int code, const char* reason) {
    Event e("reg-failed", accId, code);
    e.text = str(reason);
    add(e);
}

void Recorder::onMessage(const char* fromUri, const char* message) {
    Event e("message");
    e.text = str(fromUri);
    e.text2 = str(message);
    add(e);
}

void Recorder::OnIncomingCall(int accId, int callId, const char* display, const char* fromUri,
                              const char* toUri) {
    Event e("incoming", callId, accId);
    e.text = str(fromUri);
    e.text2 = str(display) + "|" + str(toUri);
    add(e);
}

void Recorder::OnCallStateChange(int callId, int state, int reason, const char* text) {
    Event e("state", callId, state, reason);
    e.text = str(text);
    add(e);
}

void Recorder::OnCallOffer(int callId, const char* sdp, bool audio, bool video) {
    Event e("offer", callId, 0, audio, video);
    e.text = str(sdp);
    add(e);
}

void Recorder::OnEarlyMediaSdp(int callId, const char* sdp) {
    Event e("early", callId);
    e.text = str(sdp);
    add(e);
}

void Recorder::OnCallAnswer(int callId, const char* sdp, bool audio, bool video) {
    Event e("answer", callId, 0, audio, video);
    e.text = str(sdp);
    add(e);
}

void Recorder::OnDtmfEvent(int callId, int digit, int durationMs, bool isInfo) {
    Event e("dtmf", callId, digit, durationMs, isInfo);
    add(e);
}

void Recorder::OnInfoEvent(int callId, const char* body) {
    Event e("info", callId);
    e.text = str(body);
    add(e);
}

void Recorder::OnMediaStateChange(int callId, const char* sdp, bool audio, bool video) {
    Event e("media", callId, 0, audio, video);
    e.text = str(sdp);
    add(e);
}

}  // namespace siptest
