#include "callimpl.h"

#include <algorithm>
#include <cstring>

#include "nulltext.h"
#include "sdkconstants.h"
#include "sipenginemanager.h"
#include "video_render_impl.h"

namespace zarnrtc {

using libwebrtc::scoped_refptr;

CallImpl::CallImpl(int id, SipEngineManager* manager)
    : callType(0),
      accId(0),
      callId(id),
      callDirection(Unknown),
      sipEngineManager(manager),
      isInitiator(true),
      mCallState(0),
      mCallReason(0),
      callStreamObserver(nullptr),
      localVideoRender(nullptr),
      remoteVideoRender(nullptr),
      isAddLocalRenderer(false),
      lastSipResponseCode(0),
      audioMuted(false),
      videoMuted(false),
      isScreenShare(false),
      isReinvite(false),
      iceGatheringCompleteCalled(false),
      isSelfHangup(false),
      remoteSSRC(0),
      registry(manager) {
    // Every field has its initial value already; nothing of the call is built
    // before it is in the registry.
    sipEngineManager->registerCall(this);
}

CallImpl::~CallImpl() {
    // Adapters are freed only once no track can reach them any more.
    for (auto& a : attachments) a.track->RemoveRenderer(a.renderer);
    attachments.clear();
    ownedRenders.clear();
    if (registry) registry->dropStale(this);
}

// ---- Lifecycle ----

void CallImpl::closeWebRTC() {
    // A call can end before it ever had a peer connection (an incoming call hung
    // up before it was answered).
    if (rtcPeerConnection) rtcPeerConnection->Close();
    rtcPeerConnection = nullptr;
    if (rtcAudioTrack) rtcAudioTrack = nullptr;
    if (localRtcVideoTrack) {
        detach(localRtcVideoTrack, localVideoRender);
        localRtcVideoTrack = nullptr;
    }
    if (remoteRtcVideoTrack) {
        detach(remoteRtcVideoTrack, remoteVideoRender);
        remoteRtcVideoTrack = nullptr;
    }
    localVideoRender = nullptr;
    remoteVideoRender = nullptr;
    videoReceiver = nullptr;
    videoSender = nullptr;
}

void CallImpl::closeSip() {
    if (sipEngineManager) {
        sipEngineManager->unregisterCall(this);
        sipEngineManager = nullptr;
    }
}

void CallImpl::reject(int code, const char*) {
    if (callId <= 0) return;
    sipEngineManager->reject(callId, code);
    // Out of the registry and media closed before the object goes, so nothing is
    // left pointing at it.
    closeWebRTC();
    closeSip();
    callId = -1;
    delete this;
}

void CallImpl::updateCallState(int state, int reason) {
    mCallState = state;
    mCallReason = reason;
}

void CallImpl::setSelfHangup(bool selfHangup) {
    isSelfHangup = selfHangup;
}
bool CallImpl::selfHangup() {
    return isSelfHangup;
}
int CallImpl::getCallId() {
    return callId;
}

// ---- Operations this version answers with a constant or leaves empty ----

void CallImpl::earlyAccept(bool, bool) {}
void CallImpl::makeAnswer() {}
int CallImpl::hangup() {
    return 0;
}
int CallImpl::updateCall(bool) {
    return 0;
}
int CallImpl::hold() {
    return 0;
}
int CallImpl::unHold() {
    return 0;
}
int CallImpl::sendDtmf(DtmfMethod, const char*, bool) {
    return 0;
}
int CallImpl::transfer(const char*) {
    return 0;
}
void CallImpl::onMediaStateChange(const char*, bool, bool) {}
void CallImpl::setVideoMaxBitrate(int) {}
void CallImpl::enableStatsEvents(bool, int) {}
void CallImpl::setAudioEnabled(bool) {}
void CallImpl::setVideoEnabled(bool) {}
bool CallImpl::isActive() {
    return true;
}
const char* CallImpl::getWebtcErrMessage() {
    return nullptr;
}
void CallImpl::startVideoSending() {}
void CallImpl::startVideoReceiving() {}
void CallImpl::stopVideoSending() {}
void CallImpl::stopVideoReceiving() {}
void CallImpl::startAudioSending() {}
void CallImpl::stopAudioSending() {}
void CallImpl::startAudioReceiving() {}
void CallImpl::stopAudioReceiving() {}
void CallImpl::switchCamera() {}
void CallImpl::changeCaptureFormat(int, int, int) {}
void CallImpl::updatePeerDeviceType(const char*) {}
void CallImpl::onCallReceiveReinvite(const char*) {}
void CallImpl::photoShot(bool, const char*) {}
void CallImpl::recordMedia(const char*, bool, bool) {}
void CallImpl::stopRecordMedia() {}
void CallImpl::record(const char*, const char*) {}
void CallImpl::localsnap(const char*) {}
void CallImpl::remotesnap(const char*) {}
Direction CallImpl::direction() {
    return kIncoming;
}
CallState CallImpl::call_state() {
    return kAnswered;
}
bool CallImpl::support_video() {
    return true;
}
bool CallImpl::support_data() {
    return true;
}

// ---- Negotiation ----

libwebrtc::RTCConfiguration CallImpl::buildConfiguration() {
    libwebrtc::RTCConfiguration config;
    config.sdp_semantics = libwebrtc::SdpSemantics::kPlanB;
    config.srtp_type = libwebrtc::kSRTP_None;
    config.rtcp_mux_policy = libwebrtc::RtcpMuxPolicy::kRtcpMuxPolicyNegotiate;
    config.tcp_candidate_policy = libwebrtc::TcpCandidatePolicy::kTcpCandidatePolicyDisabled;
    config.bundle_policy = libwebrtc::kBundlePolicyMaxCompat;
    memset(config.ice_servers, 0, sizeof(config.ice_servers));
    return config;
}

void CallImpl::installHandlers() {
    onSetSdpSuccess = nullptr;
    onSetSdpFailure = [](const char*) {};
    onSdpCreateSuccess = [this](const char* sdp, const char* type) {
        localSdp = sdp ? sdp : "";
        if (rtcPeerConnection)
            rtcPeerConnection->SetLocalDescription(sdp, type, onSetSdpSuccess, onSetSdpFailure);
    };
    onSdpCreateFailure = [](const char*) {};
}

void CallImpl::makeCall(const char* uri, CallParams params) {
    calleeUri = uri ? uri : "";
    callParams = params;
    libwebrtc::RTCConfiguration config = buildConfiguration();
    scoped_refptr<libwebrtc::RTCMediaConstraints> constraints =
        libwebrtc::RTCMediaConstraints::Create();
    if (sipEngineManager) {
        scoped_refptr<libwebrtc::RTCPeerConnectionFactory> factory =
            sipEngineManager->getRtcPeerConnectionFactory();
        rtcPeerConnection = factory ? factory->Create(config, constraints) : nullptr;
    }
    if (!rtcPeerConnection) return;
    rtcPeerConnection->RegisterRTCPeerConnectionObserver(this);
    installHandlers();
    AddTracks(constraints);
    if (rtcPeerConnection)
        rtcPeerConnection->CreateOffer(onSdpCreateSuccess, onSdpCreateFailure, constraints);
}

void CallImpl::makeAnswer(CallParams params) {
    callParams = params;
    isInitiator = false;
    libwebrtc::RTCConfiguration config = buildConfiguration();
    scoped_refptr<libwebrtc::RTCMediaConstraints> constraints =
        libwebrtc::RTCMediaConstraints::Create();
    if (sipEngineManager)
        rtcPeerConnection = sipEngineManager->createRtcPeerConnection(config, constraints);
    if (!rtcPeerConnection) return;
    rtcPeerConnection->RegisterRTCPeerConnectionObserver(this);
    installHandlers();
    AddTracks(constraints);
    if (!rtcPeerConnection) return;
    rtcPeerConnection->SetRemoteDescription(remoteSdp.c_str(), "offer", onSetSdpSuccess,
                                            onSetSdpFailure);
    rtcPeerConnection->CreateAnswer(onSdpCreateSuccess, onSdpCreateFailure, constraints);
}

void CallImpl::onCallOffer(const char* offerSdp) {
    remoteSdp = offerSdp ? offerSdp : "";
}

void CallImpl::applyRemoteAnswer(const char* sdp) {
    remoteSdp = sdp ? sdp : "";
    if (rtcPeerConnection)
        rtcPeerConnection->SetRemoteDescription(sdp, "answer", onSetSdpSuccess, onSetSdpFailure);
}

void CallImpl::onCallAnswer(const char* answerSdp) {
    applyRemoteAnswer(answerSdp);
}

// Early media is applied as a final answer.
void CallImpl::onEarlyMediaSdp(const char* earlyMediaSdp) {
    applyRemoteAnswer(earlyMediaSdp);
}

// ---- ICE gathering and SDP hand-off ----

void CallImpl::OnSignalingState(libwebrtc::RTCSignalingState) {}

void CallImpl::OnIceGatheringState(libwebrtc::RTCIceGatheringState state) {
    if (state != libwebrtc::RTCIceGatheringStateComplete) return;
    if (!sipEngineManager) return;
    scoped_refptr<libwebrtc::RTCPeerConnection> pc = rtcPeerConnection;
    if (!pc) return;
    scoped_refptr<libwebrtc::RTCSessionDescription> description = pc->GetLocalDescription();
    // Without a description there is nothing to send yet; a later completion may.
    if (!description) return;
    callOrAnswer(textOf(description->sdp()));
}

void CallImpl::callOrAnswer(std::string sdp) {
    if (iceGatheringCompleteCalled) return;
    iceGatheringCompleteCalled = true;
    if (sdp.empty()) return;
    if (isInitiator) {
        sipEngineManager->nativeCall(callId, calleeUri.c_str(), callParams.getDisplayName().c_str(),
                                     sdp.c_str(), kOutgoingMediaResolution);
    } else {
        sipEngineManager->nativeAnswer(callId, sdp.c_str(), true, true,
                                       callParams.getVideoHeight());
    }
}

void CallImpl::OnIceConnectionState(libwebrtc::RTCIceConnectionState) {}

void CallImpl::OnIceCandidate(scoped_refptr<libwebrtc::RTCIceCandidate> candidate) {
    m_iceCandidate_list.push_back(candidate);
}

void CallImpl::OnAddStream(scoped_refptr<libwebrtc::RTCMediaStream>) {}
void CallImpl::OnRemoveStream(scoped_refptr<libwebrtc::RTCMediaStream>) {}
void CallImpl::OnRenegotiationNeeded() {}
void CallImpl::OnDataChannel(scoped_refptr<libwebrtc::RTCDataChannel>) {}
void CallImpl::mediaStreamDispose() {}

// ---- Media tracks and rendering ----

void CallImpl::attach(const scoped_refptr<libwebrtc::RTCVideoTrack>& track, VideoRender* renderer) {
    track->AddRenderer(renderer);
    attachments.push_back({track, renderer});
}

void CallImpl::detach(const scoped_refptr<libwebrtc::RTCVideoTrack>& track, VideoRender* renderer) {
    track->RemoveRenderer(renderer);
    auto it = std::find_if(attachments.begin(), attachments.end(), [&](const Attachment& a) {
        return a.track.get() == track.get() && a.renderer == renderer;
    });
    if (it != attachments.end()) attachments.erase(it);
}

void CallImpl::AddTracks(scoped_refptr<libwebrtc::RTCMediaConstraints> constraints) {
    isScreenShare = callParams.getScreenShare();
    local_stream = sipEngineManager->createStream(kStreamLabel);
    rtcAudioTrack = sipEngineManager->createAudioTrack(kAudioTrackLabel, 0, 0);
    if (local_stream) local_stream->AddTrack(rtcAudioTrack);
    localRtcVideoTrack = sipEngineManager->createVideoTrack(
        kVideoTrackLabel, constraints, isScreenShare, kCameraName, 0, callParams.getVideoWidth(),
        callParams.getVideoHeight(), callParams.getVideoFps());
    if (local_stream) local_stream->AddTrack(localRtcVideoTrack);
    if (!rtcPeerConnection) return;
    rtcPeerConnection->AddStream(local_stream);
    if (callStreamObserver) {
        if (localVideoRender && !isAddLocalRenderer && localRtcVideoTrack) {
            isAddLocalRenderer = true;
            attach(localRtcVideoTrack, localVideoRender);
        }
        callStreamObserver->onLocalVideoReady(callId);
    }
    videoSender = rtcPeerConnection->GetVideoSender(kVideoTrackLabel);
}

void CallImpl::OnAddTrack(scoped_refptr<libwebrtc::RTCMediaStream> stream,
                          scoped_refptr<libwebrtc::RTCMediaTrack> track) {
    if (!track) return;
    const char* kind = track->kind();
    if (kind && strcmp(kind, "video") == 0) {
        remoteRtcVideoTrack = stream ? stream->FindVideoTrack(track->id()) : nullptr;
        if (rtcPeerConnection) videoSender = rtcPeerConnection->GetVideoSender(kVideoTrackLabel);
        if (sipEngineManager && remoteRtcVideoTrack) {
            sipEngineManager->onRemoteVideoReady(callId);
            if (remoteVideoRender) attach(remoteRtcVideoTrack, remoteVideoRender);
        }
    }
    kind = track->kind();
    if (kind && strcmp(kind, "audio") == 0) {
        if (rtcPeerConnection) audioReceiver = rtcPeerConnection->GetAudioReceiver();
    }
}

void CallImpl::OnRemoveTrack(scoped_refptr<libwebrtc::RTCMediaStream>,
                             scoped_refptr<libwebrtc::RTCMediaTrack> track) {
    if (track) (void)track->kind();
}

void CallImpl::setLocalVideoRender(VideoSink* videoSink) {
    ownedRenders.emplace_back(new VideoRenderImpl(videoSink));
    localVideoRender = ownedRenders.back().get();
    if (localRtcVideoTrack && !isAddLocalRenderer) {
        isAddLocalRenderer = true;
        attach(localRtcVideoTrack, localVideoRender);
    }
}

void CallImpl::setRemoteVideoRender(VideoSink* videoSink) {
    ownedRenders.emplace_back(new VideoRenderImpl(videoSink));
    remoteVideoRender = ownedRenders.back().get();
    if (remoteRtcVideoTrack) attach(remoteRtcVideoTrack, remoteVideoRender);
}

void CallImpl::openflowStream() {
    if (remoteRtcVideoTrack) {
        detach(remoteRtcVideoTrack, remoteVideoRender);
        attach(remoteRtcVideoTrack, this);
    }
    if (localRtcVideoTrack) localRtcVideoTrack->set_enabled(false);
}

void CallImpl::sendStreamPacket(bool, uint8_t, uint32_t, const uint8_t*, int) {}
void CallImpl::sendRtcp(bool) {}

void CallImpl::audioPlay(const char* fileName) {
    if (audioReceiver) audioReceiver->audioPlay(fileName);
}

void CallImpl::renderFrame(scoped_refptr<libwebrtc::RTCVideoFrame>) {}

}  // namespace zarnrtc
