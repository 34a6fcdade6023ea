#ifndef ZARNRTC_CALLIMPL_H
#define ZARNRTC_CALLIMPL_H

#include <list>
#include <memory>
#include <string>
#include <vector>

#include "call.h"
#include "callparams.h"
#include "callstreamobserver.h"
#include "libwebrtc.h"
#include "video_render.h"

namespace zarnrtc {

class SipEngineManager;
class VideoRenderImpl;

// One SIP call and the peer connection that carries its media.
class CallImpl : public Call, public libwebrtc::RTCPeerConnectionObserver, public VideoRender {
  public:
    enum CallDirection { Incoming = 1, Outgoing = 2, Unknown = -1 };

    CallImpl(int callId, SipEngineManager* manager);
    virtual ~CallImpl();

    // Call
    void makeCall(const char* calleeUri, CallParams callParams) override;
    void earlyAccept(bool audio, bool video) override;
    void makeAnswer() override;
    void makeAnswer(CallParams callParams) override;
    void reject(int code, const char* reason) override;
    int hangup() override;
    int updateCall(bool video) override;
    int hold() override;
    int unHold() override;
    int sendDtmf(DtmfMethod method, const char* digits, bool playTone) override;
    int transfer(const char* target) override;
    void onCallOffer(const char* offerSdp) override;
    void onCallAnswer(const char* answerSdp) override;
    void onMediaStateChange(const char* sdp, bool audio, bool video) override;
    void setVideoMaxBitrate(int bitrate) override;
    void closeWebRTC() override;
    void closeSip() override;
    void enableStatsEvents(bool enable, int intervalMs) override;
    void setAudioEnabled(bool enable) override;
    void setVideoEnabled(bool enable) override;
    bool isActive() override;
    const char* getWebtcErrMessage() override;
    void startVideoSending() override;
    void startVideoReceiving() override;
    void stopVideoSending() override;
    void stopVideoReceiving() override;
    void startAudioSending() override;
    void stopAudioSending() override;
    void startAudioReceiving() override;
    void stopAudioReceiving() override;
    void switchCamera() override;
    void changeCaptureFormat(int width, int height, int fps) override;
    void setLocalVideoRender(VideoSink* videoSink) override;
    void setRemoteVideoRender(VideoSink* videoSink) override;
    void updateCallState(int state, int reason) override;
    void updatePeerDeviceType(const char* deviceType) override;
    void onCallReceiveReinvite(const char* sdp) override;
    void onEarlyMediaSdp(const char* earlyMediaSdp) override;
    void photoShot(bool local, const char* fileName) override;
    void recordMedia(const char* fileName, bool audio, bool video) override;
    void stopRecordMedia() override;
    void record(const char* audioFile, const char* videoFile) override;
    void localsnap(const char* fileName) override;
    void remotesnap(const char* fileName) override;
    void setSelfHangup(bool selfHangup) override;
    bool selfHangup() override;
    void openflowStream() override;
    void sendStreamPacket(bool video, uint8_t payloadType, uint32_t timeStamp,
                          const uint8_t* packet, int len) override;
    void sendRtcp(bool pli) override;
    void audioPlay(const char* fileName) override;
    int getCallId() override;
    Direction direction() override;
    CallState call_state() override;
    bool support_video() override;
    bool support_data() override;

    // RTCPeerConnectionObserver
    void OnSignalingState(libwebrtc::RTCSignalingState state) override;
    void OnIceGatheringState(libwebrtc::RTCIceGatheringState state) override;
    void OnIceConnectionState(libwebrtc::RTCIceConnectionState state) override;
    void OnIceCandidate(libwebrtc::scoped_refptr<libwebrtc::RTCIceCandidate> candidate) override;
    void OnAddStream(libwebrtc::scoped_refptr<libwebrtc::RTCMediaStream> stream) override;
    void OnRemoveStream(libwebrtc::scoped_refptr<libwebrtc::RTCMediaStream> stream) override;
    void OnAddTrack(libwebrtc::scoped_refptr<libwebrtc::RTCMediaStream> stream,
                    libwebrtc::scoped_refptr<libwebrtc::RTCMediaTrack> track) override;
    void OnRemoveTrack(libwebrtc::scoped_refptr<libwebrtc::RTCMediaStream> stream,
                       libwebrtc::scoped_refptr<libwebrtc::RTCMediaTrack> track) override;
    void OnRenegotiationNeeded() override;

    // The call's own renderer: drops every frame (flow-stream mode).
    void renderFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) override;

    void OnDataChannel(libwebrtc::scoped_refptr<libwebrtc::RTCDataChannel> dataChannel);
    void mediaStreamDispose();
    void AddTracks(libwebrtc::scoped_refptr<libwebrtc::RTCMediaConstraints> constraints);
    void callOrAnswer(std::string localSdp);

  private:
    CallImpl(const CallImpl&) = delete;
    CallImpl& operator=(const CallImpl&) = delete;

    static libwebrtc::RTCConfiguration buildConfiguration();
    SipEngineManager* live();
    libwebrtc::scoped_refptr<libwebrtc::RTCPeerConnection> peer();
    void setPeer(libwebrtc::scoped_refptr<libwebrtc::RTCPeerConnection> pc);
    void installHandlers();
    void applyRemoteAnswer(const char* sdp);
    void attach(const libwebrtc::scoped_refptr<libwebrtc::RTCVideoTrack>& track,
                VideoRender* renderer);
    void detach(const libwebrtc::scoped_refptr<libwebrtc::RTCVideoTrack>& track,
                VideoRender* renderer);

    int callType;
    int accId;
    int callId;
    int callDirection;
    SipEngineManager* sipEngineManager;
    bool isInitiator;
    libwebrtc::scoped_refptr<libwebrtc::RTCAudioTrack> rtcAudioTrack;
    libwebrtc::scoped_refptr<libwebrtc::RTCVideoTrack> localRtcVideoTrack;
    libwebrtc::scoped_refptr<libwebrtc::RTCVideoTrack> localScreenShareRtcVideoTrack;
    libwebrtc::scoped_refptr<libwebrtc::RTCVideoTrack> remoteRtcVideoTrack;
    int mCallState;
    int mCallReason;
    std::string calleeUri;
    std::string displayName;
    CallParams callParams;
    std::string localSdp;
    std::string remoteSdp;
    CallStreamObserver* callStreamObserver;
    libwebrtc::scoped_refptr<libwebrtc::RTCVideoCapturer> capturer;
    libwebrtc::scoped_refptr<libwebrtc::RTCVideoCapturer> screenShareCapturer;
    libwebrtc::scoped_refptr<libwebrtc::RTCPeerConnection> rtcPeerConnection;
    libwebrtc::scoped_refptr<libwebrtc::RTCMediaStream> local_stream;
    VideoRender* localVideoRender;
    VideoRender* remoteVideoRender;
    libwebrtc::scoped_refptr<libwebrtc::RTCRtpSender> videoSender;
    libwebrtc::scoped_refptr<libwebrtc::RTCRtpReceiver> videoReceiver;
    libwebrtc::scoped_refptr<libwebrtc::RTCRtpReceiver> audioReceiver;
    libwebrtc::scoped_refptr<libwebrtc::RTCRtpSender> audioSender;
    libwebrtc::OnSdpCreateSuccess onSdpCreateSuccess;
    libwebrtc::OnSdpCreateFailure onSdpCreateFailure;
    libwebrtc::OnSetSdpSuccess onSetSdpSuccess;
    libwebrtc::OnSetSdpFailure onSetSdpFailure;
    bool isAddLocalRenderer;
    int lastSipResponseCode;
    bool audioMuted;
    bool videoMuted;
    bool isScreenShare;
    bool isReinvite;
    std::string reinvitesdp;
    bool iceGatheringCompleteCalled;
    bool isSelfHangup;
    uint32_t remoteSSRC;
    std::list<libwebrtc::scoped_refptr<libwebrtc::RTCIceCandidate>> m_iceCandidate_list;

    // Every adapter this call made, and every (track, renderer) attachment still in
    // place, so adapters are freed only once no track can call them.
    struct Attachment {
        libwebrtc::scoped_refptr<libwebrtc::RTCVideoTrack> track;
        VideoRender* renderer;
    };
    std::vector<std::unique_ptr<VideoRenderImpl>> ownedRenders;
    std::vector<Attachment> attachments;
    SipEngineManager* registry;  // kept after closeSip, for the stale-entry check
};

}  // namespace zarnrtc

#endif
