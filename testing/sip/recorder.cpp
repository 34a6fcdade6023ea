#include "recorder.h"

#include "null_text.h"

namespace siptest {

namespace {
std::string str(const char* s) {
    return zarnrtc::fake::text(s);
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

bool Recorder::waitKind(Event::Kind kind, int id, Event* out, std::chrono::milliseconds timeout) {
    return waitFor([&](const Event& e) { return e.kind == kind && (id < 0 || e.id == id); }, out,
                   timeout);
}

bool Recorder::waitState(int callId, int state, std::chrono::milliseconds timeout) {
    return waitFor(
        [&](const Event& e) { return e.kind == Event::kState && e.id == callId && e.a == state; },
        nullptr, timeout);
}

std::vector<Event> Recorder::events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
}

std::vector<int> Recorder::states(int callId) {
    std::vector<int> out;
    for (const Event& e : events())
        if (e.kind == Event::kState && e.id == callId) out.push_back(e.a);
    return out;
}

int Recorder::count(Event::Kind kind, int id) {
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

void Recorder::onMessage(const char* fromUri, const char* message) {
    Event e(Event::kMessage);
    e.text = str(fromUri);
    e.text2 = str(message);
    add(e);
}

void Recorder::OnIncomingCall(int accId, int callId, const char* display, const char* fromUri,
                              const char* toUri) {
    Event e(Event::kIncoming, callId, accId);
    e.text = str(fromUri);
    e.text2 = str(display) + "|" + str(toUri);
    add(e);
}

void Recorder::add(Event e, const char* text) {
    e.text = str(text);
    add(e);
}

}  // namespace siptest
