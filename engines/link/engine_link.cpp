#include "engine_link.h"

#include <map>
#include <mutex>
#include <utility>

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
