// The public peer connection: a thin counted facade over a Session.
#include "session.h"

namespace libwebrtc {
namespace media {

namespace {

class PeerConnectionImpl : public RTCPeerConnection {
  public:
    explicit PeerConnectionImpl(std::shared_ptr<Session> s) : s_(std::move(s)) {}
    int AddStream(scoped_refptr<RTCMediaStream> stream) override { return s_->AddStream(stream); }
    int RemoveStream(scoped_refptr<RTCMediaStream> stream) override {
        return s_->RemoveStream(stream);
    }
    void CreateOffer(OnSdpCreateSuccess success, OnSdpCreateFailure failure,
                     scoped_refptr<RTCMediaConstraints>) override {
        s_->CreateSdp(true, success, failure);
    }
    void CreateAnswer(OnSdpCreateSuccess success, OnSdpCreateFailure failure,
                      scoped_refptr<RTCMediaConstraints>) override {
        s_->CreateSdp(false, success, failure);
    }
    void SetLocalDescription(const char* sdp, const char* type, OnSetSdpSuccess success,
                             OnSetSdpFailure failure) override {
        s_->SetDescription(true, Str(sdp), Str(type), success, failure);
    }
    void SetRemoteDescription(const char* sdp, const char* type, OnSetSdpSuccess success,
                              OnSetSdpFailure failure) override {
        s_->SetDescription(false, Str(sdp), Str(type), success, failure);
    }
    scoped_refptr<RTCSessionDescription> GetLocalDescription() override {
        return s_->LocalDescription();
    }
    scoped_refptr<RTCSessionDescription> GetRemoteDescription() override {
        return s_->RemoteDescription();
    }
    void AddCandidate(const char*, int mid_mline_index, const char* candidate) override {
        s_->AddCandidate(candidate, mid_mline_index);
    }
    void RegisterRTCPeerConnectionObserver(RTCPeerConnectionObserver* observer) override {
        s_->SetObserver(observer);
    }
    void DeRegisterRTCPeerConnectionObserver() override { s_->SetObserver(nullptr); }
    scoped_refptr<RTCRtpSender> GetVideoSender(const char* label) override {
        return s_->Sender(true, label);
    }
    scoped_refptr<RTCRtpSender> GetAudioSender(const char* label) override {
        return s_->Sender(false, label);
    }
    scoped_refptr<RTCRtpReceiver> GetVideoReceiver() override { return s_->Receiver(true); }
    scoped_refptr<RTCRtpReceiver> GetAudioReceiver() override { return s_->Receiver(false); }
    RTCSignalingState signaling_state() override {
        return static_cast<RTCSignalingState>(s_->signaling_.load());
    }
    RTCIceConnectionState ice_connection_state() override {
        return static_cast<RTCIceConnectionState>(s_->ice_connection_.load());
    }
    RTCIceGatheringState ice_gathering_state() override {
        return static_cast<RTCIceGatheringState>(s_->gathering_.load());
    }
    void Close() override { s_->Close(); }

  protected:
    ~PeerConnectionImpl() override { s_->Close(); }

  private:
    std::shared_ptr<Session> s_;
};

}  // namespace

scoped_refptr<RTCPeerConnection> CreatePeerConnection(const RTCConfiguration& configuration) {
    auto session = std::make_shared<Session>(configuration);
    if (!session->Init()) {
        session->Close();
        return nullptr;
    }
    return new RefCountedObject<PeerConnectionImpl>(session);
}

}  // namespace media
}  // namespace libwebrtc
