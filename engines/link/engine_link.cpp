#include "engine_link.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "link_settings.h"

#define ZARN_LINK_API __attribute__((visibility("default")))

namespace {

struct Subscribers {
    std::mutex mutex;
    std::map<int, std::pair<zarn_link_lost_fn, void*>> by_token;
    int next = 1;
};

// Never destroyed: engines may unsubscribe from static destructors.
Subscribers& subscribers() {
    static auto* s = new Subscribers;
    return *s;
}

}  // namespace

extern "C" {

ZARN_LINK_API int zarn_link_subscribe(zarn_link_lost_fn fn, void* context) {
    if (!fn) return 0;
    Subscribers& s = subscribers();
    std::lock_guard<std::mutex> lock(s.mutex);
    int token = s.next++;
    s.by_token[token] = {fn, context};
    return token;
}

ZARN_LINK_API void zarn_link_unsubscribe(int token) {
    Subscribers& s = subscribers();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.by_token.erase(token);
}

ZARN_LINK_API void zarn_link_report_lost(const char* ice_ufrag, const char* why) {
    if (!ice_ufrag || !*ice_ufrag) return;
    Subscribers& s = subscribers();
    // Held across the calls so that an unsubscribe waits for a running one.
    std::lock_guard<std::mutex> lock(s.mutex);
    for (auto& entry : s.by_token)
        entry.second.first(entry.second.second, ice_ufrag, why ? why : "");
}

}  // extern "C"

namespace {

struct Mark {
    long long at_us;
    unsigned long source;
    std::string event;
};

enum class TimelineMode { kOff, kPrint, kKeep };

// Once per process: a bench that wants "keep" puts it in place before the first mark.
TimelineMode timelineMode() {
    static const TimelineMode mode = [] {
        switch (zarnrtc::settings::linkSettings().timeline) {
            case zarnrtc::settings::Timeline::kPrint:
                return TimelineMode::kPrint;
            case zarnrtc::settings::Timeline::kKeep:
                return TimelineMode::kKeep;
            case zarnrtc::settings::Timeline::kOff:
                break;
        }
        return TimelineMode::kOff;
    }();
    return mode;
}

struct Timeline {
    std::mutex mutex;
    std::vector<Mark> marks;
};

Timeline& timeline() {
    static auto* t = new Timeline;
    return *t;
}

// A bench that forgets to drain must not grow without end.
constexpr size_t kMaxKeptMarks = 100000;

}  // namespace

extern "C" {

ZARN_LINK_API int zarn_timeline_on(void) {
    return timelineMode() != TimelineMode::kOff;
}

ZARN_LINK_API void zarn_timeline_mark(unsigned long source, const char* event) {
    TimelineMode mode = timelineMode();
    if (mode == TimelineMode::kOff || !event) return;
    long long now = std::chrono::duration_cast<std::chrono::microseconds>(
                        std::chrono::steady_clock::now().time_since_epoch())
                        .count();
    if (mode == TimelineMode::kPrint) {
        fprintf(stderr, "timeline %lld.%03lld ms  %lx  %s\n", now / 1000, now % 1000, source,
                event);
        return;
    }
    Timeline& t = timeline();
    std::lock_guard<std::mutex> lock(t.mutex);
    if (t.marks.size() < kMaxKeptMarks) t.marks.push_back({now, source, event});
}

ZARN_LINK_API void zarn_timeline_drain(zarn_timeline_fn fn, void* context) {
    std::vector<Mark> marks;
    {
        Timeline& t = timeline();
        std::lock_guard<std::mutex> lock(t.mutex);
        marks.swap(t.marks);
    }
    if (!fn) return;
    for (const Mark& m : marks) fn(context, m.at_us, m.source, m.event.c_str());
}

}  // extern "C"
