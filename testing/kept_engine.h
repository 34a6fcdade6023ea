// The SDK's engine has no destroy: made by createZarnRtcEngine, it lives until the
// process ends. Tests keep every engine they make reachable from here, so the leak
// checker needs no exception for it and still reports anything else left behind.
#ifndef ZARNRTC_TESTING_KEPT_ENGINE_H
#define ZARNRTC_TESTING_KEPT_ENGINE_H

#include <mutex>
#include <vector>

#include "zarnrtc.h"

namespace zarnrtc_testing {

inline zarnrtc::ZarnRtc* keptEngine() {
    static std::mutex mutex;
    static auto* engines = new std::vector<zarnrtc::ZarnRtc*>();
    zarnrtc::ZarnRtc* engine = zarnrtc::ZarnRtc::createZarnRtcEngine();
    std::lock_guard<std::mutex> lock(mutex);
    engines->push_back(engine);
    return engine;
}

}  // namespace zarnrtc_testing

#endif
