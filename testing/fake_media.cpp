#include "fake_media.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <vector>

using libwebrtc::RefCountedObject;
using libwebrtc::scoped_refptr;
using namespace libwebrtc;

namespace zarnrtc {
namespace fake {

namespace {

std::atomic<int> pcCounter{0};
std::atomic<int> cameras{0};

// Counts itself in liveObjects() for as long as the owning object lives.
struct Live {
    Live() { liveObjectAdded(); }
    ~Live() { liveObjectRemoved(); }
};

std::string b(bool v) {
    return v ? "true" : "false";
}

template <typename T>
class Registry {
  public:
    void add(T* p) {
        std::lock_guard<std::mutex> lock(m_);
        items_.push_back(p);
    }
    void remove(T* p) {
        std::lock_guard<std::mutex> lock(m_);
        items_.erase(std::remove(items_.begin(), items_.end(), p), items_.end());
    }
    std::vector<T*> all() {
        std::lock_guard<std::mutex> lock(m_);
        return items_;
    }

  private:
    std::mutex m_;
    std::vector<T*> items_;
};

Registry<FakePeerConnection>& pcs() {
    static Registry<FakePeerConnection> r;
    return r;
}
Registry<FakeVideoTrack>& localVideos() {
    static Registry<FakeVideoTrack> r;
    return r;
}

class Frame : public RTCVideoFrame {
  public:
    Frame(int w, int h)
        : w_(w),
          h_(h),
          y_(size_t(w) * h, 16),
          u_(size_t((w + 1) / 2) * ((h + 1) / 2), 128),
          v_(u_.size(), 128) {}
    int width() const override { return w_; }
    int height() const override { return h_; }
    const uint8_t* DataY() const override { return y_.data(); }
    const uint8_t* DataU() const override { return u_.data(); }
    const uint8_t* DataV() const override { return v_.data(); }
    int StrideY() const override { return w_; }
    int StrideU() const override { return (w_ + 1) / 2; }
    int StrideV() const override { return (w_ + 1) / 2; }
    int64_t timestamp_us() const override { return 0; }

  private:
    Live live_;
    int w_, h_;
    std::vector<uint8_t> y_, u_, v_;
};

class Constraints : public RTCMediaConstraints {
  public:
    void AddMandatoryConstraint(const char* k, const char* v) override {
        logAppend("Constraints.AddMandatory(" + text(k) + "," + text(v) + ")");
    }
    void AddOptionalConstraint(const char* k, const char* v) override {
        logAppend("Constraints.AddOptional(" + text(k) + "," + text(v) + ")");
    }

  private:
    Live live_;
};

// What audio and video tracks share: an id and a logged enable switch.
template <typename Base>
class Track : public Base {
  public:
    Track(const char* id, const char* kind) : id_(text(id)), kind_(kind) {}
    const char* kind() const override { return kind_; }
    const char* id() const override { return id_.c_str(); }
    bool enabled() const override { return enabled_; }
    bool set_enabled(bool e) override {
        logAppend((kind_[0] == 'a' ? "AudioTrack(" : "VideoTrack(") + id_ + ").set_enabled(" +
                  b(e) + ")");
        enabled_ = e;
        return true;
    }

  protected:
    Live live_;
    std::string id_;
    const char* kind_;
    bool enabled_ = true;
};

class AudioTrack : public Track<RTCAudioTrack> {
  public:
    explicit AudioTrack(const char* id) : Track(id, "audio") {}
    void SetVolume(double) override {}
};

class VideoTrack : public Track<FakeVideoTrack> {
  public:
    VideoTrack(const char* id, bool local) : Track(id, "video"), local_(local) {
        if (local_) localVideos().add(this);
    }
    ~VideoTrack() override {
        if (local_) localVideos().remove(this);
    }
    void AddRenderer(RTCVideoRenderer<scoped_refptr<RTCVideoFrame>>* r) override {
        logAppend("VideoTrack(" + id_ + ").AddRenderer");
        std::lock_guard<std::recursive_mutex> lock(m_);
        renderers_.push_back(r);
    }
    void RemoveRenderer(RTCVideoRenderer<scoped_refptr<RTCVideoFrame>>* r) override {
        logAppend("VideoTrack(" + id_ + ").RemoveRenderer");
        std::lock_guard<std::recursive_mutex> lock(m_);
        auto it = std::find(renderers_.begin(), renderers_.end(), r);
        if (it != renderers_.end()) renderers_.erase(it);
    }
    // Delivery holds the lock, so a renderer removed is never called afterwards.
    void pushFrame(scoped_refptr<RTCVideoFrame> frame) override {
        std::lock_guard<std::recursive_mutex> lock(m_);
        if (!enabled_) return;
        auto copy = renderers_;
        for (auto* r : copy) r->renderFrame(frame);
    }
    size_t rendererCount() override {
        std::lock_guard<std::recursive_mutex> lock(m_);
        return renderers_.size();
    }

  private:
    bool local_;
    std::recursive_mutex m_;
    std::vector<RTCVideoRenderer<scoped_refptr<RTCVideoFrame>>*> renderers_;
};

class Stream : public RTCMediaStream {
  public:
    explicit Stream(const char* id) : id_(text(id)) {}
    bool AddTrack(scoped_refptr<RTCAudioTrack> t) override { return add(audio_, t); }
    bool AddTrack(scoped_refptr<RTCVideoTrack> t) override { return add(video_, t); }
    bool RemoveTrack(scoped_refptr<RTCAudioTrack> t) override { return remove(audio_, t); }
    bool RemoveTrack(scoped_refptr<RTCVideoTrack> t) override { return remove(video_, t); }
    scoped_refptr<RTCAudioTrack> FindAudioTrack(const char* id) override {
        return find(audio_, id);
    }
    scoped_refptr<RTCVideoTrack> FindVideoTrack(const char* id) override {
        return find(video_, id);
    }
    const char* label() const override { return id_.c_str(); }
    const char* id() const override { return id_.c_str(); }

  private:
    template <typename T>
    bool add(std::vector<scoped_refptr<T>>& tracks, scoped_refptr<T> t) {
        logAppend("Stream(" + id_ + ").AddTrack(" + (t ? std::string(t->id()) : "null") + ")");
        if (t) tracks.push_back(t);
        return t != nullptr;
    }
    template <typename T>
    static bool remove(std::vector<scoped_refptr<T>>& tracks, scoped_refptr<T> t) {
        auto it = std::find(tracks.begin(), tracks.end(), t);
        if (it == tracks.end()) return false;
        tracks.erase(it);
        return true;
    }
    template <typename T>
    static scoped_refptr<T> find(std::vector<scoped_refptr<T>>& tracks, const char* id) {
        for (auto& t : tracks)
            if (id && strcmp(t->id(), id) == 0) return t;
        return nullptr;
    }

    Live live_;
    std::string id_;
    std::vector<scoped_refptr<RTCAudioTrack>> audio_;
    std::vector<scoped_refptr<RTCVideoTrack>> video_;
};

class Capturer : public RTCVideoCapturer {
  public:
    Capturer() { ++cameras; }
    ~Capturer() override {
        --cameras;
        logAppend("~Capturer");
    }
    bool StartCapture() override { return true; }
    bool CaptureStarted() override { return true; }
    void StopCapture() override {}

  private:
    Live live_;
};

class VideoDevice : public RTCVideoDevice {
  public:
    uint32_t NumberOfDevices() override { return 1; }
    int32_t GetDeviceName(uint16_t, char* name, uint32_t nameLen, char* id,
                          uint32_t idLen) override {
        if (name && nameLen) snprintf(name, nameLen, "fake camera");
        if (id && idLen) snprintf(id, idLen, "fake0");
        return 0;
    }
    scoped_refptr<RTCVideoCapturer> Create(const char* name, uint32_t index, int w, int h,
                                           int fps) override {
        logAppend("VideoDevice.Create(" + text(name) + "," + std::to_string(index) + "," +
                  std::to_string(w) + "," + std::to_string(h) + "," + std::to_string(fps) + ")");
        if (mediaConfig().failCamera) return nullptr;
        return new RefCountedObject<Capturer>();
    }
    scoped_refptr<RTCVideoCapturer> CreateScreenCapture(int fps, uint32_t index) override {
        logAppend("VideoDevice.CreateScreenCapture(" + std::to_string(fps) + "," +
                  std::to_string(index) + ")");
        return new RefCountedObject<Capturer>();
    }

  private:
    Live live_;
};

class AudioSource : public RTCAudioSource {
    Live live_;
};
class VideoSource : public RTCVideoSource {
  public:
    explicit VideoSource(scoped_refptr<RTCVideoCapturer> c) : capturer_(c) {}

  private:
    Live live_;
    scoped_refptr<RTCVideoCapturer> capturer_;
};

class Description : public RTCSessionDescription {
  public:
    Description(std::string sdp, std::string type) : sdp_(std::move(sdp)), type_(std::move(type)) {}
    const char* sdp() const override { return sdp_.c_str(); }
    const char* type() const override { return type_.c_str(); }

  private:
    Live live_;
    std::string sdp_, type_;
};

class Candidate : public RTCIceCandidate {
  public:
    explicit Candidate(const char* c) : c_(text(c)) {}
    const char* candidate() const override { return c_.c_str(); }
    const char* sdp_mid() const override { return "0"; }
    int sdp_mline_index() const override { return 0; }

  private:
    Live live_;
    std::string c_;
};

class Sender : public RTCRtpSender {
  public:
    explicit Sender(std::string id) : id_(std::move(id)) {}
    scoped_refptr<RTCMediaTrack> track() const override { return nullptr; }
    const char* id() const override { return id_.c_str(); }

  private:
    Live live_;
    std::string id_;
};

class Receiver : public RTCRtpReceiver {
  public:
    explicit Receiver(std::string id) : id_(std::move(id)) {}
    scoped_refptr<RTCMediaTrack> track() const override { return nullptr; }
    const char* id() const override { return id_.c_str(); }
    void audioPlay(const char* file) override {
        logAppend("Receiver(" + id_ + ").audioPlay(" + text(file) + ")");
    }

  private:
    Live live_;
    std::string id_;
};

class PeerConnection : public FakePeerConnection {
  public:
    explicit PeerConnection(const RTCConfiguration& config)
        : n_(++pcCounter), name_("PC" + std::to_string(n_)), config_(config) {
        pcs().add(this);
    }
    ~PeerConnection() override { pcs().remove(this); }

    int AddStream(scoped_refptr<RTCMediaStream> s) override {
        log("AddStream(" + (s ? std::string(s->id()) : "null") + ")");
        if (s) local_.push_back(s);
        return 0;
    }
    int RemoveStream(scoped_refptr<RTCMediaStream> s) override {
        log("RemoveStream");
        local_.erase(std::remove(local_.begin(), local_.end(), s), local_.end());
        return 0;
    }
    void CreateOffer(OnSdpCreateSuccess ok, OnSdpCreateFailure fail,
                     scoped_refptr<RTCMediaConstraints>) override {
        log("CreateOffer");
        pending(ok, fail, "offer");
    }
    void CreateAnswer(OnSdpCreateSuccess ok, OnSdpCreateFailure fail,
                      scoped_refptr<RTCMediaConstraints>) override {
        log("CreateAnswer");
        pending(ok, fail, "answer");
    }
    void SetLocalDescription(const char* sdp, const char* type, OnSetSdpSuccess ok,
                             OnSetSdpFailure) override {
        log("SetLocalDescription(" + text(type) + ")");
        {
            std::lock_guard<std::mutex> lock(m_);
            localSdp_ = text(sdp);
            hasLocal_ = true;
        }
        if (ok) ok();
        if (mediaConfig().autoNegotiate && observer_) {
            observer_->OnIceGatheringState(RTCIceGatheringStateGathering);
            fireCandidate("candidate:1 1 UDP 2122252543 127.0.0.1 40000 typ host");
            observer_->OnIceGatheringState(RTCIceGatheringStateComplete);
        }
    }
    void SetRemoteDescription(const char* sdp, const char* type, OnSetSdpSuccess ok,
                              OnSetSdpFailure fail) override {
        log("SetRemoteDescription(" + text(type) + "," + text(sdp) + ")");
        remoteSdp_ = text(sdp);
        if (sdp && *sdp) {
            if (ok) ok();
        } else if (fail) {
            fail("empty description");
        }
    }
    scoped_refptr<RTCSessionDescription> GetLocalDescription() override {
        log("GetLocalDescription");
        std::lock_guard<std::mutex> lock(m_);
        if (mediaConfig().nullLocalDescription || !hasLocal_) return nullptr;
        return new RefCountedObject<Description>(localSdp_, type_);
    }
    scoped_refptr<RTCSessionDescription> GetRemoteDescription() override {
        if (remoteSdp_.empty()) return nullptr;
        return new RefCountedObject<Description>(remoteSdp_, "answer");
    }
    void AddCandidate(const char*, int, const char* c) override {
        log("AddCandidate(" + text(c) + ")");
    }
    void RegisterRTCPeerConnectionObserver(RTCPeerConnectionObserver* o) override {
        log("RegisterRTCPeerConnectionObserver");
        observer_ = o;
    }
    void DeRegisterRTCPeerConnectionObserver() override {
        log("DeRegisterRTCPeerConnectionObserver");
        observer_ = nullptr;
    }
    scoped_refptr<RTCRtpSender> GetVideoSender(const char* label) override {
        log("GetVideoSender(" + text(label) + ")");
        for (auto& s : local_) {
            if (label && s->FindVideoTrack(label)) return new RefCountedObject<Sender>(label);
        }
        return nullptr;
    }
    scoped_refptr<RTCRtpSender> GetAudioSender(const char* label) override {
        log("GetAudioSender(" + text(label) + ")");
        return nullptr;
    }
    scoped_refptr<RTCRtpReceiver> GetVideoReceiver() override {
        log("GetVideoReceiver");
        return nullptr;
    }
    scoped_refptr<RTCRtpReceiver> GetAudioReceiver() override {
        log("GetAudioReceiver");
        if (!remoteAudio_) return nullptr;
        return new RefCountedObject<Receiver>(name_ + ".audio");
    }
    RTCSignalingState signaling_state() override { return RTCSignalingStateStable; }
    RTCIceConnectionState ice_connection_state() override { return RTCIceConnectionStateNew; }
    RTCIceGatheringState ice_gathering_state() override { return RTCIceGatheringStateNew; }
    void Close() override {
        log("Close");
        closed_ = true;
        observer_ = nullptr;
        ok_ = nullptr;
        fail_ = nullptr;
        remote_ = nullptr;
        remoteVideo_ = nullptr;
    }

    // Test control
    RTCPeerConnectionObserver* observer() override { return observer_; }
    const RTCConfiguration& configuration() override { return config_; }
    bool resolveCreate(const char* sdp) override {
        if (!ok_) return false;
        OnSdpCreateSuccess ok = ok_;
        ok_ = nullptr;
        fail_ = nullptr;
        std::string text = sdp ? std::string(sdp) : madeUpSdp();
        ok(text.c_str(), type_.c_str());
        return true;
    }
    bool failCreate(const char* error) override {
        if (!fail_) return false;
        OnSdpCreateFailure fail = fail_;
        ok_ = nullptr;
        fail_ = nullptr;
        fail(error);
        return true;
    }
    void fireGathering(RTCIceGatheringState state) override {
        if (observer_) observer_->OnIceGatheringState(state);
    }
    void fireCandidate(const char* c) override {
        {
            std::lock_guard<std::mutex> lock(m_);
            localSdp_ += "a=" + text(c) + "\r\n";
        }
        if (observer_) observer_->OnIceCandidate(new RefCountedObject<Candidate>(c));
    }
    void fireAddTrack(const char* kind, const char* trackId, bool findable) override {
        if (!remote_) remote_ = new RefCountedObject<Stream>("remote_stream");
        scoped_refptr<RTCMediaTrack> track;
        if (kind && strcmp(kind, "video") == 0) {
            scoped_refptr<VideoTrack> v = new RefCountedObject<VideoTrack>(trackId, false);
            if (findable) remote_->AddTrack(scoped_refptr<RTCVideoTrack>(v));
            remoteVideo_ = v;
            track = v;
        } else if (kind && strcmp(kind, "audio") == 0) {
            scoped_refptr<RTCAudioTrack> a = new RefCountedObject<AudioTrack>(trackId);
            remote_->AddTrack(a);
            remoteAudio_ = true;
            track = a;
        } else {
            return;  // the engine only ever reports audio and video tracks
        }
        if (observer_) observer_->OnAddTrack(remote_, track);
    }
    void fireRemoveTrack(const char* kind, const char* trackId) override {
        scoped_refptr<RTCMediaTrack> track;
        if (kind && strcmp(kind, "video") == 0 && remote_)
            track = remote_->FindVideoTrack(trackId);
        else if (remote_)
            track = remote_->FindAudioTrack(trackId);
        if (track && observer_) observer_->OnRemoveTrack(remote_, track);
    }
    FakeVideoTrack* remoteVideoTrack() override { return remoteVideo_.get(); }
    bool closed() override { return closed_; }
    std::string localSdp() override {
        std::lock_guard<std::mutex> lock(m_);
        return localSdp_;
    }
    void setLocalSdp(const std::string& sdp) override {
        std::lock_guard<std::mutex> lock(m_);
        localSdp_ = sdp;
        hasLocal_ = true;
    }
    std::string remoteSdp() override { return remoteSdp_; }
    std::string name() override { return name_; }

  private:
    void log(const std::string& what) { logAppend(name_ + "." + what); }
    std::string madeUpSdp() const {
        return "v=0\r\no=- " + std::to_string(n_) + " 1 IN IP4 127.0.0.1\r\ns=" + name_ +
               "\r\nt=0 0\r\na=ice-ufrag:fake\r\na=ice-pwd:fakefakefakefakefakefake\r\n"
               "m=audio 9 RTP/AVPF 8\r\nc=IN IP4 127.0.0.1\r\na=rtpmap:8 PCMA/8000\r\n"
               "m=video 9 RTP/AVPF 96\r\nc=IN IP4 127.0.0.1\r\na=rtpmap:96 H264/90000\r\n"
               "a=fmtp:96 packetization-mode=1;profile-level-id=42e01f\r\n";
    }
    void pending(const OnSdpCreateSuccess& ok, const OnSdpCreateFailure& fail, const char* type) {
        ok_ = ok;
        fail_ = fail;
        type_ = type;
        if (mediaConfig().autoNegotiate) resolveCreate(nullptr);
    }

    Live live_;
    int n_;
    std::string name_;
    RTCConfiguration config_;
    RTCPeerConnectionObserver* observer_ = nullptr;
    OnSdpCreateSuccess ok_;
    OnSdpCreateFailure fail_;
    std::string type_ = "offer";
    std::mutex m_;
    std::string localSdp_;
    bool hasLocal_ = false;
    std::string remoteSdp_;
    bool closed_ = false;
    bool remoteAudio_ = false;
    std::vector<scoped_refptr<RTCMediaStream>> local_;
    scoped_refptr<Stream> remote_;
    scoped_refptr<VideoTrack> remoteVideo_;
};

class Factory : public RTCPeerConnectionFactory {
  public:
    ~Factory() override { logAppend("~Factory"); }
    bool Initialize() override { return true; }
    bool Terminate() override { return true; }
    scoped_refptr<RTCPeerConnection> Create(const RTCConfiguration& config,
                                            scoped_refptr<RTCMediaConstraints>) override {
        logAppend("Factory.Create");
        if (mediaConfig().failPeerConnection) return nullptr;
        return new RefCountedObject<PeerConnection>(config);
    }
    void Delete(scoped_refptr<RTCPeerConnection>) override {}
    scoped_refptr<RTCAudioDevice> GetAudioDevice() override { return nullptr; }
    scoped_refptr<RTCVideoDevice> GetVideoDevice() override {
        logAppend("Factory.GetVideoDevice");
        return new RefCountedObject<VideoDevice>();
    }
    scoped_refptr<RTCAudioSource> CreateAudioSource(const char* label) override {
        logAppend("Factory.CreateAudioSource(" + text(label) + ")");
        return new RefCountedObject<AudioSource>();
    }
    scoped_refptr<RTCVideoSource> CreateVideoSource(scoped_refptr<RTCVideoCapturer> capturer,
                                                    const char* label,
                                                    scoped_refptr<RTCMediaConstraints>) override {
        logAppend("Factory.CreateVideoSource(" + text(label) + "," +
                  (capturer ? "capturer" : "null") + ")");
        return new RefCountedObject<VideoSource>(capturer);
    }
    scoped_refptr<RTCAudioTrack> CreateAudioTrack(scoped_refptr<RTCAudioSource>,
                                                  const char* id) override {
        logAppend("Factory.CreateAudioTrack(" + text(id) + ")");
        return new RefCountedObject<AudioTrack>(id);
    }
    scoped_refptr<RTCVideoTrack> CreateVideoTrack(scoped_refptr<RTCVideoSource>,
                                                  const char* id) override {
        logAppend("Factory.CreateVideoTrack(" + text(id) + ")");
        return new RefCountedObject<VideoTrack>(id, true);
    }
    scoped_refptr<RTCMediaStream> CreateStream(const char* id) override {
        logAppend("Factory.CreateStream(" + text(id) + ")");
        return new RefCountedObject<Stream>(id);
    }

  private:
    Live live_;
};

}  // namespace

MediaConfig& mediaConfig() {
    static MediaConfig config;
    return config;
}

void resetMedia() {
    mediaConfig() = MediaConfig();
}

std::vector<FakePeerConnection*> peerConnections() {
    return pcs().all();
}

FakePeerConnection* lastPeerConnection() {
    auto all = pcs().all();
    return all.empty() ? nullptr : all.back();
}

std::vector<FakeVideoTrack*> localVideoTracks() {
    return localVideos().all();
}

int openCameras() {
    return cameras.load();
}

scoped_refptr<RTCVideoFrame> makeFrame(int width, int height) {
    return new RefCountedObject<Frame>(width, height);
}

}  // namespace fake
}  // namespace zarnrtc

namespace libwebrtc {

bool LibWebRTC::Initialize() {
    zarnrtc::fake::logAppend("LibWebRTC::Initialize");
    return true;
}

scoped_refptr<RTCPeerConnectionFactory> LibWebRTC::CreateRTCPeerConnectionFactory() {
    zarnrtc::fake::logAppend("LibWebRTC::CreateRTCPeerConnectionFactory");
    if (zarnrtc::fake::mediaConfig().failFactory) return nullptr;
    return new RefCountedObject<zarnrtc::fake::Factory>();
}

void LibWebRTC::Terminate() {
    zarnrtc::fake::logAppend("LibWebRTC::Terminate");
}

scoped_refptr<RTCMediaConstraints> RTCMediaConstraints::Create() {
    return new RefCountedObject<zarnrtc::fake::Constraints>();
}

}  // namespace libwebrtc
