#ifndef LIBWEBRTC_RTC_PEERCONNECTION_H
#define LIBWEBRTC_RTC_PEERCONNECTION_H

#include "rtc_data_channel.h"
#include "rtc_ice_candidate.h"
#include "rtc_media_constraints.h"
#include "rtc_media_stream.h"
#include "rtc_rtp_receiver.h"
#include "rtc_rtp_sender.h"
#include "rtc_session_description.h"

namespace libwebrtc {

// Called on the engine's threads. After RTCPeerConnection::Close returns, no
// observer operation is running or will run.
class RTCPeerConnectionObserver {
  public:
    virtual void OnSignalingState(RTCSignalingState state) = 0;
    virtual void OnIceGatheringState(RTCIceGatheringState state) = 0;
    virtual void OnIceConnectionState(RTCIceConnectionState state) = 0;
    virtual void OnIceCandidate(scoped_refptr<RTCIceCandidate> candidate) = 0;
    virtual void OnAddStream(scoped_refptr<RTCMediaStream> stream) = 0;
    virtual void OnRemoveStream(scoped_refptr<RTCMediaStream> stream) = 0;
    virtual void OnAddTrack(scoped_refptr<RTCMediaStream> stream,
                            scoped_refptr<RTCMediaTrack> track) = 0;
    virtual void OnRemoveTrack(scoped_refptr<RTCMediaStream> stream,
                               scoped_refptr<RTCMediaTrack> track) = 0;
    virtual void OnRenegotiationNeeded() = 0;

  protected:
    virtual ~RTCPeerConnectionObserver() {}
};

class RTCPeerConnection : public RefCountInterface {
  public:
    virtual int AddStream(scoped_refptr<RTCMediaStream> stream) = 0;
    virtual int RemoveStream(scoped_refptr<RTCMediaStream> stream) = 0;

    virtual void CreateOffer(OnSdpCreateSuccess success, OnSdpCreateFailure failure,
                             scoped_refptr<RTCMediaConstraints> constraints) = 0;
    virtual void CreateAnswer(OnSdpCreateSuccess success, OnSdpCreateFailure failure,
                              scoped_refptr<RTCMediaConstraints> constraints) = 0;
    // type: "offer", "pranswer" or "answer".
    virtual void SetLocalDescription(const char* sdp, const char* type, OnSetSdpSuccess success,
                                     OnSetSdpFailure failure) = 0;
    virtual void SetRemoteDescription(const char* sdp, const char* type, OnSetSdpSuccess success,
                                      OnSetSdpFailure failure) = 0;
    // The current local description with every candidate gathered so far, or null
    // before one was set.
    virtual scoped_refptr<RTCSessionDescription> GetLocalDescription() = 0;
    virtual scoped_refptr<RTCSessionDescription> GetRemoteDescription() = 0;
    virtual void AddCandidate(const char* mid, int mid_mline_index, const char* candidate) = 0;

    // The observer is not owned.
    virtual void RegisterRTCPeerConnectionObserver(RTCPeerConnectionObserver* observer) = 0;
    virtual void DeRegisterRTCPeerConnectionObserver() = 0;

    virtual scoped_refptr<RTCRtpSender> GetVideoSender(const char* label) = 0;
    virtual scoped_refptr<RTCRtpSender> GetAudioSender(const char* label) = 0;
    virtual scoped_refptr<RTCRtpReceiver> GetVideoReceiver() = 0;
    virtual scoped_refptr<RTCRtpReceiver> GetAudioReceiver() = 0;

    virtual RTCSignalingState signaling_state() = 0;
    virtual RTCIceConnectionState ice_connection_state() = 0;
    virtual RTCIceGatheringState ice_gathering_state() = 0;

    virtual void Close() = 0;

  protected:
    ~RTCPeerConnection() override {}
};

}  // namespace libwebrtc

#endif
