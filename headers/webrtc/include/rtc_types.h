#ifndef LIBWEBRTC_RTC_TYPES_H
#define LIBWEBRTC_RTC_TYPES_H

#include <cstdint>

#include "base/fixed_size_function.h"
#include "base/refcount.h"
#include "base/scoped_refptr.h"

#ifndef LIB_WEBRTC_API
#define LIB_WEBRTC_API __attribute__((visibility("default")))
#endif

namespace libwebrtc {

enum { kMaxIceServerSize = 8, kMaxStringLength = 256 };

struct IceServer {
    char uri[kMaxStringLength];
    char username[kMaxStringLength];
    char password[kMaxStringLength];
};

enum class IceTransportsType { kNone, kRelay, kNoHost, kAll };
enum class TcpCandidatePolicy { kTcpCandidatePolicyEnabled, kTcpCandidatePolicyDisabled };
enum class CandidateNetworkPolicy { kCandidateNetworkPolicyAll, kCandidateNetworkPolicyLowCost };
enum class RtcpMuxPolicy { kRtcpMuxPolicyNegotiate, kRtcpMuxPolicyRequire };
enum RTCBundlePolicy { kBundlePolicyBalanced, kBundlePolicyMaxBundle, kBundlePolicyMaxCompat };
enum class SdpSemantics { kPlanB, kUnifiedPlan };
enum SrtpType { kSRTP_None, kSDES_SRTP, kDTLS_SRTP };

// Peer-connection configuration. The defaults are the engine's own; the fields a
// caller does not assign are handed over as constructed.
struct RTCConfiguration {
    RTCConfiguration() {
        for (auto& s : ice_servers) {
            s.uri[0] = s.username[0] = s.password[0] = '\0';
        }
    }
    IceServer ice_servers[kMaxIceServerSize];
    IceTransportsType type = IceTransportsType::kAll;
    RTCBundlePolicy bundle_policy = kBundlePolicyBalanced;
    RtcpMuxPolicy rtcp_mux_policy = RtcpMuxPolicy::kRtcpMuxPolicyRequire;
    CandidateNetworkPolicy candidate_network_policy =
        CandidateNetworkPolicy::kCandidateNetworkPolicyAll;
    TcpCandidatePolicy tcp_candidate_policy = TcpCandidatePolicy::kTcpCandidatePolicyEnabled;
    int ice_candidate_pool_size = 0;
    SrtpType srtp_type = kDTLS_SRTP;
    SdpSemantics sdp_semantics = SdpSemantics::kUnifiedPlan;
    bool offer_to_receive_audio = true;
    bool offer_to_receive_video = true;
    bool use_rtp_mux = true;
    uint32_t local_audio_bandwidth = 128;
    uint32_t local_video_bandwidth = 512;
};

enum RTCSignalingState {
    RTCSignalingStateStable,
    RTCSignalingStateHaveLocalOffer,
    RTCSignalingStateHaveRemoteOffer,
    RTCSignalingStateHaveLocalPrAnswer,
    RTCSignalingStateHaveRemotePrAnswer,
    RTCSignalingStateClosed
};

enum RTCIceGatheringState {
    RTCIceGatheringStateNew,
    RTCIceGatheringStateGathering,
    RTCIceGatheringStateComplete
};

enum RTCIceConnectionState {
    RTCIceConnectionStateNew,
    RTCIceConnectionStateChecking,
    RTCIceConnectionStateCompleted,
    RTCIceConnectionStateConnected,
    RTCIceConnectionStateFailed,
    RTCIceConnectionStateDisconnected,
    RTCIceConnectionStateClosed,
    RTCIceConnectionStateMax
};

// SDP handlers. They are copied by value into the engine and called on its threads.
using OnSdpCreateSuccess = fixed_size_function<void(const char* sdp, const char* type)>;
using OnSdpCreateFailure = fixed_size_function<void(const char* error)>;
using OnSetSdpSuccess = fixed_size_function<void()>;
using OnSetSdpFailure = fixed_size_function<void(const char* error)>;

}  // namespace libwebrtc

#endif
