// One call and its peer connection. Longer than our usual file: the lock over the
// call's wiring is private to this file, so every path that touches it lives here.
#include "callimpl.h"

#include <algorithm>
#include <cstring>
#include <mutex>

#include "nulltext.h"
#include "sdkconstants.h"
#include "sipenginemanager.h"
#include "video_render_impl.h"

namespace zarnrtc {

using libwebrtc::scoped_refptr;

namespace {
// Guards every call's render wiring (tracks, renderers, attachments, adapters,
// sender and receiver): the media engine's thread reports tracks while the
// application's thread attaches sinks. Never held while an engine or the
// application runs; references are dropped after it is released.
std::mutex wiringMutex;
}  // namespace

scoped_refptr<libwebrtc::RTCPeerConnection> CallImpl::peer() {
    std::lock_guard<std::mutex> lock(wiringMutex);
    return rtcPeerConnection;
}

void CallImpl::setPeer(scoped_refptr<libwebrtc::RTCPeerConnection> pc) {
    {
        std::lock_guard<std::mutex> lock(wiringMutex);
        pc.swap(rtcPeerConnection);
    }
    // A replaced connection is released here, after the lock.
}

// The call's link to the manager, cleared by closeSip from whichever thread hangs
// up while media callbacks may read it.
SipEngineManager* CallImpl::live() {
    return __atomic_load_n(&sipEngineManager, __ATOMIC_ACQUIRE);
}

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
    std::vector<Attachment> left;
    std::vector<std::unique_ptr<VideoRenderImpl>> owned;
    {
        std::lock_guard<std::mutex> lock(wiringMutex);
        left.swap(attachments);
        owned.swap(ownedRenders);
    }
    for (auto& a : left) a.track->RemoveRenderer(a.renderer);
    left.clear();
    owned.clear();
    if (registry) registry->dropStale(this);
}

// ---- Lifecycle ----

void CallImpl::closeWebRTC() {
    // A call can end before it ever had a peer connection (an incoming call hung
    // up before it was answered).
    scoped_refptr<libwebrtc::RTCPeerConnection> pc;
    {
        std::lock_guard<std::mutex> lock(wiringMutex);
        pc.swap(rtcPeerConnection);
    }
    if (pc) pc->Close();
    pc = nullptr;
    if (rtcAudioTrack) rtcAudioTrack = nullptr;
    scoped_refptr<libwebrtc::RTCVideoTrack> local, remote;
    scoped_refptr<libwebrtc::RTCRtpReceiver> receiver;
    scoped_refptr<libwebrtc::RTCRtpSender> sender;
    VideoRender* localRender = nullptr;
    VideoRender* remoteRender = nullptr;
    {
        std::lock_guard<std::mutex> lock(wiringMutex);
        local.swap(localRtcVideoTrack);
        remote.swap(remoteRtcVideoTrack);
        receiver.swap(videoReceiver);
        sender.swap(videoSender);
        localRender = localVideoRender;
        remoteRender = remoteVideoRender;
        localVideoRender = nullptr;
        remoteVideoRender = nullptr;
    }
    if (local) {
        detach(local, localRender);
        local = nullptr;
    }
    if (remote) {
        detach(remote, remoteRender);
        remote = nullptr;
    }
}

void CallImpl::closeSip() {
    // Once only, even when two threads hang up at once.
    SipEngineManager* manager = __atomic_exchange_n(&sipEngineManager, nullptr, __ATOMIC_ACQ_REL);
    if (manager) manager->unregisterCall(this);
}

void CallImpl::reject(int code, const char*) {
    if (callId <= 0) return;
    if (SipEngineManager* manager = live()) manager->reject(callId, code);
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

// Installed on the application's thread, copied under the lock by the SIP and media
// threads that hand them to the engine.
void CallImpl::installHandlers() {
    std::lock_guard<std::mutex> lock(wiringMutex);
    onSetSdpSuccess = nullptr;
    onSetSdpFailure = [](const char*) {};
    onSdpCreateSuccess = [this](const char* sdp, const char* type) {
        libwebrtc::OnSetSdpSuccess ok;
        libwebrtc::OnSetSdpFailure failed;
        {
            std::lock_guard<std::mutex> lock(wiringMutex);
            localSdp = sdp ? sdp : "";
            ok = onSetSdpSuccess;
            failed = onSetSdpFailure;
        }
        if (scoped_refptr<libwebrtc::RTCPeerConnection> pc = peer())
            pc->SetLocalDescription(sdp, type, ok, failed);
    };
    onSdpCreateFailure = [](const char*) {};
}

void CallImpl::makeCall(const char* uri, CallParams params) {
    calleeUri = uri ? uri : "";
    callParams = params;
    libwebrtc::RTCConfiguration config = buildConfiguration();
    scoped_refptr<libwebrtc::RTCMediaConstraints> constraints =
        libwebrtc::RTCMediaConstraints::Create();
    scoped_refptr<libwebrtc::RTCPeerConnection> pc;
    if (SipEngineManager* manager = live()) {
        scoped_refptr<libwebrtc::RTCPeerConnectionFactory> factory =
            manager->getRtcPeerConnectionFactory();
        pc = factory ? factory->Create(config, constraints) : nullptr;
        setPeer(pc);
    }
    if (!pc) return;
    pc->RegisterRTCPeerConnectionObserver(this);
    installHandlers();
    AddTracks(constraints);
    pc->CreateOffer(onSdpCreateSuccess, onSdpCreateFailure, constraints);
}

void CallImpl::makeAnswer(CallParams params) {
    callParams = params;
    isInitiator = false;
    libwebrtc::RTCConfiguration config = buildConfiguration();
    scoped_refptr<libwebrtc::RTCMediaConstraints> constraints =
        libwebrtc::RTCMediaConstraints::Create();
    scoped_refptr<libwebrtc::RTCPeerConnection> pc;
    if (SipEngineManager* manager = live()) {
        pc = manager->createRtcPeerConnection(config, constraints);
        setPeer(pc);
    }
    if (!pc) return;
    pc->RegisterRTCPeerConnectionObserver(this);
    installHandlers();
    AddTracks(constraints);
    std::string offer;
    {
        std::lock_guard<std::mutex> lock(wiringMutex);
        offer = remoteSdp;  // a re-offer may be stored on the SIP thread meanwhile
    }
    pc->SetRemoteDescription(offer.c_str(), "offer", onSetSdpSuccess, onSetSdpFailure);
    pc->CreateAnswer(onSdpCreateSuccess, onSdpCreateFailure, constraints);
}

void CallImpl::onCallOffer(const char* offerSdp) {
    std::lock_guard<std::mutex> lock(wiringMutex);
    remoteSdp = offerSdp ? offerSdp : "";
}

void CallImpl::applyRemoteAnswer(const char* sdp) {
    libwebrtc::OnSetSdpSuccess ok;
    libwebrtc::OnSetSdpFailure failed;
    {
        std::lock_guard<std::mutex> lock(wiringMutex);
        remoteSdp = sdp ? sdp : "";
        ok = onSetSdpSuccess;
        failed = onSetSdpFailure;
    }
    if (scoped_refptr<libwebrtc::RTCPeerConnection> pc = peer())
        pc->SetRemoteDescription(sdp, "answer", ok, failed);
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
    if (!live()) return;
    scoped_refptr<libwebrtc::RTCPeerConnection> pc = peer();
    if (!pc) return;
    scoped_refptr<libwebrtc::RTCSessionDescription> description = pc->GetLocalDescription();
    // Without a description there is nothing to send yet; a later completion may.
    if (!description) return;
    callOrAnswer(textOf(description->sdp()));
}

void CallImpl::callOrAnswer(std::string sdp) {
    if (iceGatheringCompleteCalled) return;
    iceGatheringCompleteCalled = true;
    SipEngineManager* manager = live();
    if (sdp.empty() || !manager) return;
    if (isInitiator) {
        manager->nativeCall(callId, calleeUri.c_str(), callParams.getDisplayName().c_str(),
                            sdp.c_str(), kOutgoingMediaResolution);
    } else {
        manager->nativeAnswer(callId, sdp.c_str(), true, true, callParams.getVideoHeight());
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

// Both are called with no lock held.
void CallImpl::attach(const scoped_refptr<libwebrtc::RTCVideoTrack>& track, VideoRender* renderer) {
    {
        std::lock_guard<std::mutex> lock(wiringMutex);
        attachments.push_back({track, renderer});
    }
    track->AddRenderer(renderer);
}

void CallImpl::detach(const scoped_refptr<libwebrtc::RTCVideoTrack>& track, VideoRender* renderer) {
    track->RemoveRenderer(renderer);
    std::lock_guard<std::mutex> lock(wiringMutex);
    // The caller still holds the track, so erasing drops no last reference here.
    auto it = std::find_if(attachments.begin(), attachments.end(), [&](const Attachment& a) {
        return a.track.get() == track.get() && a.renderer == renderer;
    });
    if (it != attachments.end()) attachments.erase(it);
}

void CallImpl::AddTracks(scoped_refptr<libwebrtc::RTCMediaConstraints> constraints) {
    isScreenShare = callParams.getScreenShare();
    local_stream = registry->createStream(kStreamLabel);
    rtcAudioTrack = registry->createAudioTrack(kAudioTrackLabel, 0, 0);
    if (local_stream) local_stream->AddTrack(rtcAudioTrack);
    scoped_refptr<libwebrtc::RTCVideoTrack> video = registry->createVideoTrack(
        kVideoTrackLabel, constraints, isScreenShare, kCameraName, 0, callParams.getVideoWidth(),
        callParams.getVideoHeight(), callParams.getVideoFps());
    {
        std::lock_guard<std::mutex> lock(wiringMutex);
        localRtcVideoTrack = video;
    }
    if (local_stream) local_stream->AddTrack(video);
    scoped_refptr<libwebrtc::RTCPeerConnection> pc = peer();
    if (!pc) return;
    pc->AddStream(local_stream);
    if (callStreamObserver) {
        VideoRender* render = nullptr;
        {
            std::lock_guard<std::mutex> lock(wiringMutex);
            if (localVideoRender && !isAddLocalRenderer && video) {
                isAddLocalRenderer = true;
                render = localVideoRender;
            }
        }
        if (render) attach(video, render);
        callStreamObserver->onLocalVideoReady(callId);
    }
    scoped_refptr<libwebrtc::RTCRtpSender> sender = pc->GetVideoSender(kVideoTrackLabel);
    std::lock_guard<std::mutex> lock(wiringMutex);
    sender.swap(videoSender);  // a replaced sender is released after the lock
}

void CallImpl::OnAddTrack(scoped_refptr<libwebrtc::RTCMediaStream> stream,
                          scoped_refptr<libwebrtc::RTCMediaTrack> track) {
    if (!track) return;
    scoped_refptr<libwebrtc::RTCPeerConnection> pc = peer();
    const char* kind = track->kind();
    if (kind && strcmp(kind, "video") == 0) {
        scoped_refptr<libwebrtc::RTCVideoTrack> found =
            stream ? stream->FindVideoTrack(track->id()) : nullptr;
        scoped_refptr<libwebrtc::RTCVideoTrack> replaced = found;
        scoped_refptr<libwebrtc::RTCRtpSender> sender =
            pc ? pc->GetVideoSender(kVideoTrackLabel) : nullptr;
        {
            std::lock_guard<std::mutex> lock(wiringMutex);
            replaced.swap(remoteRtcVideoTrack);
            if (pc) sender.swap(videoSender);
        }
        SipEngineManager* manager = live();
        if (manager && found) {
            manager->onRemoteVideoReady(callId);
            VideoRender* render = nullptr;
            {
                std::lock_guard<std::mutex> lock(wiringMutex);
                render = remoteVideoRender;
            }
            if (render) attach(found, render);
        }
    }
    kind = track->kind();
    if (kind && strcmp(kind, "audio") == 0 && pc) {
        scoped_refptr<libwebrtc::RTCRtpReceiver> receiver = pc->GetAudioReceiver();
        std::lock_guard<std::mutex> lock(wiringMutex);
        receiver.swap(audioReceiver);
    }
}

void CallImpl::OnRemoveTrack(scoped_refptr<libwebrtc::RTCMediaStream>,
                             scoped_refptr<libwebrtc::RTCMediaTrack> track) {
    if (track) (void)track->kind();
}

void CallImpl::setLocalVideoRender(VideoSink* videoSink) {
    VideoRenderImpl* render = new VideoRenderImpl(videoSink);
    scoped_refptr<libwebrtc::RTCVideoTrack> track;
    {
        std::lock_guard<std::mutex> lock(wiringMutex);
        ownedRenders.emplace_back(render);
        localVideoRender = render;
        if (localRtcVideoTrack && !isAddLocalRenderer) {
            isAddLocalRenderer = true;
            track = localRtcVideoTrack;
        }
    }
    if (track) attach(track, render);
}

void CallImpl::setRemoteVideoRender(VideoSink* videoSink) {
    VideoRenderImpl* render = new VideoRenderImpl(videoSink);
    scoped_refptr<libwebrtc::RTCVideoTrack> track;
    {
        std::lock_guard<std::mutex> lock(wiringMutex);
        ownedRenders.emplace_back(render);
        remoteVideoRender = render;
        track = remoteRtcVideoTrack;
    }
    if (track) attach(track, render);
}

void CallImpl::openflowStream() {
    scoped_refptr<libwebrtc::RTCVideoTrack> remote, local;
    VideoRender* render = nullptr;
    {
        std::lock_guard<std::mutex> lock(wiringMutex);
        remote = remoteRtcVideoTrack;
        local = localRtcVideoTrack;
        render = remoteVideoRender;
    }
    if (remote) {
        detach(remote, render);
        attach(remote, this);
    }
    if (local) local->set_enabled(false);
}

void CallImpl::sendStreamPacket(bool, uint8_t, uint32_t, const uint8_t*, int) {}
void CallImpl::sendRtcp(bool) {}

void CallImpl::audioPlay(const char* fileName) {
    scoped_refptr<libwebrtc::RTCRtpReceiver> receiver;
    {
        std::lock_guard<std::mutex> lock(wiringMutex);
        receiver = audioReceiver;
    }
    if (receiver) receiver->audioPlay(fileName);
}

void CallImpl::renderFrame(scoped_refptr<libwebrtc::RTCVideoFrame>) {}

}  // namespace zarnrtc
