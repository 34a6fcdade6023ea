// The call-state numbers of CallStateDelegate::OnCallStateChange, shared by the engine
// and its tests. They are the SDK's CallState values; this engine reports 1..7.
#ifndef ZARNRTC_ENGINES_SIP_CALL_STATE_H
#define ZARNRTC_ENGINES_SIP_CALL_STATE_H

namespace sipengine {

enum CallState : int {
    kNewCall = 0,
    kCancel = 1,
    kFailed = 2,
    kRejected = 3,
    kEarlyMedia = 4,
    kRinging = 5,
    kAnswered = 6,
    kHangup = 7,  // exactly once per call, last
    kPausing = 8,
    kPaused = 9,
    kResuming = 10,
    kResumed = 11,
    kUpdating = 12,
    kUpdated = 13,
};

}  // namespace sipengine

#endif
