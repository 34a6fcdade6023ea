#include "engine_link.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "link_settings.h"

#define ZARN_LINK_API __attribute__((visibility("default")))

namespace {

// One subscription: news of lost far ends, or of unusable descriptions.
struct Subscription {
    zarn_link_lost_fn lost = nullptr;
    zarn_link_unusable_fn unusable = nullptr;
    void* context = nullptr;
};

struct Subscribers {
    std::mutex mutex;
    std::map<int, Subscription> by_token;
    int next = 1;
};

// Never destroyed: engines may unsubscribe from static destructors.
Subscribers& subscribers() {
    static auto* s = new Subscribers;
    return *s;
}

int subscribe(const Subscription& entry) {
    Subscribers& s = subscribers();
    std::lock_guard<std::mutex> lock(s.mutex);
    int token = s.next++;
    s.by_token[token] = entry;
    return token;
}

// Variants of local offers by ICE user fragment, oldest first. Written by the media
// engine's threads, read by the SIP engine's: each call copies under the lock.
struct Alternatives {
    std::mutex mutex;
    std::list<std::pair<std::string, std::vector<std::string>>> entries;
};

Alternatives& alternatives() {
    static auto* a = new Alternatives;
    return *a;
}

// More than the calls one device has at once (forwarding rings a handful); an entry
// that is never taken or forgotten is pushed out by newer ones.
constexpr size_t kMaxAlternatives = 64;

}  // namespace

extern "C" {

ZARN_LINK_API int zarn_link_subscribe(zarn_link_lost_fn fn, void* context) {
    if (!fn) return 0;
    Subscription entry;
    entry.lost = fn;
    entry.context = context;
    return subscribe(entry);
}

ZARN_LINK_API int zarn_link_subscribe_unusable(zarn_link_unusable_fn fn, void* context) {
    if (!fn) return 0;
    Subscription entry;
    entry.unusable = fn;
    entry.context = context;
    return subscribe(entry);
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
        if (entry.second.lost) entry.second.lost(entry.second.context, ice_ufrag, why ? why : "");
}

ZARN_LINK_API void zarn_link_report_unusable(const char* remote_sdp, int status, const char* why) {
    if (!remote_sdp) return;
    unsigned long long key = zarn_link_text_key(remote_sdp);
    Subscribers& s = subscribers();
    std::lock_guard<std::mutex> lock(s.mutex);  // as for lost far ends
    for (auto& entry : s.by_token)
        if (entry.second.unusable)
            entry.second.unusable(entry.second.context, key, status, why ? why : "");
}

ZARN_LINK_API unsigned long long zarn_link_text_key(const char* text) {
    if (!text) return 0;
    unsigned long long hash = 14695981039346656037ULL;  // FNV-1a 64 offset basis
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
        hash ^= *p;
        hash *= 1099511628211ULL;  // FNV 64 prime
    }
    return hash;
}

ZARN_LINK_API void zarn_link_put_alternatives(const char* ice_ufrag, const char* const* sdps,
                                              int count) {
    if (!ice_ufrag || !*ice_ufrag) return;
    std::vector<std::string> list;
    for (int i = 0; sdps && i < count; ++i)
        if (sdps[i]) list.emplace_back(sdps[i]);
    if (list.empty()) return zarn_link_forget_alternative(ice_ufrag);
    Alternatives& a = alternatives();
    std::lock_guard<std::mutex> lock(a.mutex);
    a.entries.remove_if([&](const auto& e) { return e.first == ice_ufrag; });
    a.entries.emplace_back(ice_ufrag, std::move(list));
    if (a.entries.size() > kMaxAlternatives) a.entries.pop_front();
}

ZARN_LINK_API void zarn_link_put_alternative(const char* ice_ufrag, const char* sdp) {
    zarn_link_put_alternatives(ice_ufrag, &sdp, 1);
}

ZARN_LINK_API char* zarn_link_copy_alternative(const char* ice_ufrag, int index) {
    if (!ice_ufrag || !*ice_ufrag || index < 0) return nullptr;
    Alternatives& a = alternatives();
    std::lock_guard<std::mutex> lock(a.mutex);
    for (const auto& e : a.entries)
        if (e.first == ice_ufrag)
            return static_cast<size_t>(index) < e.second.size()
                       ? strdup(e.second[static_cast<size_t>(index)].c_str())
                       : nullptr;
    return nullptr;
}

ZARN_LINK_API void zarn_link_forget_alternative(const char* ice_ufrag) {
    if (!ice_ufrag || !*ice_ufrag) return;
    Alternatives& a = alternatives();
    std::lock_guard<std::mutex> lock(a.mutex);
    a.entries.remove_if([&](const auto& e) { return e.first == ice_ufrag; });
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
