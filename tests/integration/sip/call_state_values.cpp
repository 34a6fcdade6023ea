// The SIP engine reports the SDK's own CallState numbers, which the SDK passes on unchanged.
#include "call.h"
#include "call_state.h"

namespace {

constexpr bool same(sipengine::CallState engine, zarnrtc::CallState sdk) {
    return static_cast<int>(engine) == static_cast<int>(sdk);
}

static_assert(same(sipengine::kNewCall, zarnrtc::kNewCall) &&
                  same(sipengine::kCancel, zarnrtc::kCancel) &&
                  same(sipengine::kFailed, zarnrtc::kFailed) &&
                  same(sipengine::kRejected, zarnrtc::kRejected) &&
                  same(sipengine::kEarlyMedia, zarnrtc::kEarlyMedia) &&
                  same(sipengine::kRinging, zarnrtc::kRinging) &&
                  same(sipengine::kAnswered, zarnrtc::kAnswered) &&
                  same(sipengine::kHangup, zarnrtc::kHangup) &&
                  same(sipengine::kPausing, zarnrtc::kPausing) &&
                  same(sipengine::kPaused, zarnrtc::kPaused) &&
                  same(sipengine::kResuming, zarnrtc::kResuming) &&
                  same(sipengine::kResumed, zarnrtc::kResumed) &&
                  same(sipengine::kUpdating, zarnrtc::kUpdating) &&
                  same(sipengine::kUpdated, zarnrtc::kUpdated),
              "the engine's call states differ from the SDK's");

}  // namespace
