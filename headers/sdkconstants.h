#ifndef ZARNRTC_SDKCONSTANTS_H
#define ZARNRTC_SDKCONSTANTS_H

// Numbers and texts the SDK hands to its engines and its application. Internal: no
// public header includes it and it adds nothing to the interface. The values are
// the system's own and must not change.

namespace zarnrtc {

// Registration states reported through onRegistrationState and kept on the account.
enum RegistrationState : int {
    kRegistrationProgress = 0,
    kRegistrationSuccess = 1,
    kRegistrationCleared = 2,
    kRegistrationFailed = 3
};

// What this device calls itself in MakeCall and Accept.
constexpr const char* kLocalDeviceType = "dev_indoor";
// The facade's own device label (kept, never sent).
constexpr const char* kFacadeDeviceType = "in_door";

// Media resolution argument of MakeCall (a line count) for calls this device places.
constexpr int kOutgoingMediaResolution = 160;

// Reason recorded on a call ended by the local hangup.
constexpr int kLocalHangupReason = 3;
// Hang-up reasons passed to the manager's hangup.
constexpr const char* kHangupNormal = "NORMAL_CLEARING";
constexpr const char* kHangupForwardCancel = "callForwardCancel";

// Registration transport and expiry (seconds).
constexpr const char* kRegisterTransport = "TCP";
constexpr int kRegisterExpirySeconds = 600;

// Labels of the local stream and tracks, and the shared camera's name.
constexpr const char* kStreamLabel = "stream_id";
constexpr const char* kAudioTrackLabel = "audio_label";
constexpr const char* kVideoTrackLabel = "video_label";
constexpr const char* kCameraName = "capturer";
constexpr int kScreenCaptureFps = 30;

}  // namespace zarnrtc

#endif
