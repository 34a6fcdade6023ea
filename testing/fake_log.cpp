#include "fake_log.h"

#include <atomic>
#include <mutex>

namespace zarnrtc {
namespace fake {

namespace {
std::mutex& logMutex() {
    static std::mutex m;
    return m;
}
std::vector<std::string>& log() {
    static std::vector<std::string> entries;
    return entries;
}
std::atomic<int> live{0};
}  // namespace

void logAppend(const std::string& entry) {
    std::lock_guard<std::mutex> lock(logMutex());
    log().push_back(entry);
}

std::vector<std::string> logEntries() {
    std::lock_guard<std::mutex> lock(logMutex());
    return log();
}

void logClear() {
    std::lock_guard<std::mutex> lock(logMutex());
    log().clear();
}

std::vector<std::string> logMatching(const std::string& prefix) {
    std::vector<std::string> out;
    for (const auto& e : logEntries()) {
        if (e.compare(0, prefix.size(), prefix) == 0) out.push_back(e);
    }
    return out;
}

int liveObjects() {
    return live.load();
}
void liveObjectAdded() {
    ++live;
}
void liveObjectRemoved() {
    --live;
}

}  // namespace fake
}  // namespace zarnrtc
