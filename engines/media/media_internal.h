// Internal classes of the host media engine (GStreamer rtpbin and libnice underneath).
#ifndef ZARNRTC_MEDIA_INTERNAL_H
#define ZARNRTC_MEDIA_INTERNAL_H

#include <gst/gst.h>
#include <gst/video/video.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "libwebrtc.h"
#include "pipelines.h"

GST_DEBUG_CATEGORY_EXTERN(zarn_media_debug);
#define GST_CAT_DEFAULT zarn_media_debug

namespace libwebrtc {
namespace media {

using VideoRenderer = RTCVideoRenderer<scoped_refptr<RTCVideoFrame>>;

// ---------------------------------------------------------------------------
// Process-wide helpers (factory.cpp)

// Runs deferred releases of GStreamer objects on a thread that is never one of
// their own streaming threads.
void Reap(std::function<void()> fn);
// Remote audio goes to the default output only when one seems to exist.
bool AudioOutputAvailable();
AudioSource LocalAudioSource();
// The only local addresses media may use (empty: every usable interface).
std::vector<std::string> MediaAddresses();
// Plain RTP refused: only DTLS-SRTP offered and accepted.
bool RequireEncryption();
// Drops bus messages (nobody polls the buses) after logging errors.
void InstallBusDropHandler(GstElement* pipeline, const char* what);

// ---------------------------------------------------------------------------
// Plain value objects (objects.cpp)

class SessionDescriptionImpl : public RTCSessionDescription {
  public:
    SessionDescriptionImpl(std::string sdp, std::string type)
        : sdp_(std::move(sdp)), type_(std::move(type)) {}
    const char* sdp() const override { return sdp_.c_str(); }
    const char* type() const override { return type_.c_str(); }

  private:
    std::string sdp_, type_;
};

class IceCandidateImpl : public RTCIceCandidate {
  public:
    IceCandidateImpl(std::string cand, std::string mid, int index)
        : cand_(std::move(cand)), mid_(std::move(mid)), index_(index) {}
    const char* candidate() const override { return cand_.c_str(); }
    const char* sdp_mid() const override { return mid_.c_str(); }
    int sdp_mline_index() const override { return index_; }

  private:
    std::string cand_, mid_;
    int index_;
};

class MediaConstraintsImpl : public RTCMediaConstraints {
  public:
    void AddMandatoryConstraint(const char* key, const char* value) override;
    void AddOptionalConstraint(const char* key, const char* value) override;

  private:
    std::mutex mutex_;
    std::map<std::string, std::string> mandatory_, optional_;
};

// One decoded or captured I420 picture; keeps the GStreamer buffer mapped.
class VideoFrameImpl : public RTCVideoFrame {
  public:
    // Null when the sample is not mappable I420.
    static scoped_refptr<RTCVideoFrame> FromSample(GstSample* sample);
    int width() const override;
    int height() const override;
    const uint8_t* DataY() const override;
    const uint8_t* DataU() const override;
    const uint8_t* DataV() const override;
    int StrideY() const override;
    int StrideU() const override;
    int StrideV() const override;
    int64_t timestamp_us() const override { return timestamp_us_; }

  protected:
    VideoFrameImpl() = default;
    ~VideoFrameImpl() override;

  private:
    GstVideoFrame* frame_ = nullptr;
    int64_t timestamp_us_ = 0;
};

// Hands each I420 sample of one video track to its renderers and to the
// encoders of the calls that send the track. Shared by the track, the capturer
// feeding it and the appsink callbacks, hence a shared_ptr.
class VideoFanout {
  public:
    ~VideoFanout();
    void AddRenderer(VideoRenderer* renderer);
    void RemoveRenderer(VideoRenderer* renderer);
    // appsrc of a call pipeline; a reference is taken.
    void AddAppSrc(GstElement* appsrc);
    void RemoveAppSrc(GstElement* appsrc);
    void SetEnabled(bool enabled) { enabled_ = enabled; }
    bool enabled() const { return enabled_; }
    void Deliver(GstSample* sample);
    // Keep the latest picture (cameras and remote tracks): a call attached between
    // two pictures starts encoding at once, and a renderer added within kFreshUs of
    // a picture gets it at once, instead of a frame period later.
    void KeepLatest() { keep_latest_ = true; }

  private:
    static constexpr gint64 kFreshUs = 100 * 1000;  // older pictures are not replayed
    GstSample* latest_ = nullptr;                   // under src_mutex_
    gint64 latest_us_ = 0;
    std::atomic<bool> keep_latest_{false};
    // Held while renderers run so RemoveRenderer waits for a running delivery;
    // recursive so a renderer may remove itself.
    std::recursive_mutex render_mutex_;
    std::vector<VideoRenderer*> renderers_;
    std::mutex src_mutex_;
    std::vector<GstElement*> srcs_;
    std::atomic<bool> enabled_{true};
};

// Volume and mute of one audio track, applied to every volume element that
// carries it.
class AudioControl {
  public:
    ~AudioControl();
    void Attach(GstElement* volume);
    void Detach(GstElement* volume);
    void SetVolume(double volume);
    void SetEnabled(bool enabled);
    bool enabled();

  private:
    void ApplyLocked(GstElement* volume);
    std::mutex mutex_;
    std::vector<GstElement*> volumes_;
    double volume_ = 1.0;
    bool enabled_ = true;
};

// ---------------------------------------------------------------------------
// Capture (capturer.cpp)

class CapturerImpl : public RTCVideoCapturer {
  public:
    // source: a gst-launch fragment producing raw video. stamped: every picture is
    // drawn over with the benchmarks' stamped picture (stamp.h).
    CapturerImpl(std::string source, int width, int height, int fps, bool stamped = false);
    bool StartCapture() override;
    bool CaptureStarted() override;
    void StopCapture() override;

    void Subscribe(const std::shared_ptr<VideoFanout>& fanout);
    void Unsubscribe(const VideoFanout* fanout);
    void DropLatest();

  protected:
    ~CapturerImpl() override;

  private:
    bool BuildLocked();
    static GstFlowReturn OnSample(GstElement* sink, gpointer self);
    static GstPadProbeReturn Stamp(GstPad* pad, GstPadProbeInfo* info, gpointer self);

    std::string source_;
    int width_, height_, fps_;
    std::mutex state_mutex_;  // pipeline_ and started_
    GstElement* pipeline_ = nullptr;
    bool started_ = false;
    std::mutex subs_mutex_;
    std::vector<std::shared_ptr<VideoFanout>> subs_;
    GstSample* latest_ = nullptr;  // under subs_mutex_: primes a new track
    gint64 latest_us_ = 0;
    std::atomic<bool> first_frame_marked_{false};  // timeline
    const bool stamped_;
    uint32_t frames_drawn_ = 0;  // the capture thread's
};

class VideoDeviceImpl : public RTCVideoDevice {
  public:
    uint32_t NumberOfDevices() override;
    int32_t GetDeviceName(uint16_t index, char* name, uint32_t name_len, char* unique_id,
                          uint32_t unique_id_len) override;
    scoped_refptr<RTCVideoCapturer> Create(const char* name, uint32_t index, int width, int height,
                                           int fps) override;
    scoped_refptr<RTCVideoCapturer> CreateScreenCapture(int fps, uint32_t screen_index) override;
};

class AudioDeviceImpl : public RTCAudioDevice {
  public:
    int16_t PlayoutDevices() override;
    int16_t RecordingDevices() override;
    int32_t SetPlayoutDevice(uint16_t index) override;
    int32_t SetRecordingDevice(uint16_t index) override;
};

// ---------------------------------------------------------------------------
// Sources, tracks, streams (objects.cpp)

class AudioSourceImpl : public RTCAudioSource {
  public:
    explicit AudioSourceImpl(std::string label) : label_(std::move(label)) {}
    const std::string& label() const { return label_; }

  private:
    std::string label_;
};

class VideoSourceImpl : public RTCVideoSource {
  public:
    VideoSourceImpl(scoped_refptr<CapturerImpl> capturer, std::string label)
        : capturer_(capturer), label_(std::move(label)) {}
    scoped_refptr<CapturerImpl> capturer() const { return capturer_; }

  private:
    scoped_refptr<CapturerImpl> capturer_;
    std::string label_;
};

class AudioTrackImpl : public RTCAudioTrack {
  public:
    AudioTrackImpl(std::string id, bool remote)
        : id_(std::move(id)), remote_(remote), control_(std::make_shared<AudioControl>()) {}
    const char* kind() const override { return "audio"; }
    const char* id() const override { return id_.c_str(); }
    bool enabled() const override { return control_->enabled(); }
    bool set_enabled(bool enable) override;
    void SetVolume(double volume) override;

    bool remote() const { return remote_; }
    const std::shared_ptr<AudioControl>& control() const { return control_; }

  private:
    std::string id_;
    bool remote_;
    std::shared_ptr<AudioControl> control_;
};

class VideoTrackImpl : public RTCVideoTrack {
  public:
    // source is null for a remote track (fed by the call's decoder).
    VideoTrackImpl(std::string id, scoped_refptr<VideoSourceImpl> source);
    const char* kind() const override { return "video"; }
    const char* id() const override { return id_.c_str(); }
    bool enabled() const override { return fanout_->enabled(); }
    bool set_enabled(bool enable) override;
    void AddRenderer(VideoRenderer* renderer) override;
    void RemoveRenderer(VideoRenderer* renderer) override;

    const std::shared_ptr<VideoFanout>& fanout() const { return fanout_; }
    bool remote() const { return !source_; }

  protected:
    ~VideoTrackImpl() override;

  private:
    std::string id_;
    scoped_refptr<VideoSourceImpl> source_;
    std::shared_ptr<VideoFanout> fanout_;
};

class MediaStreamImpl : public RTCMediaStream {
  public:
    explicit MediaStreamImpl(std::string id) : id_(std::move(id)) {}
    bool AddTrack(scoped_refptr<RTCAudioTrack> track) override;
    bool AddTrack(scoped_refptr<RTCVideoTrack> track) override;
    bool RemoveTrack(scoped_refptr<RTCAudioTrack> track) override;
    bool RemoveTrack(scoped_refptr<RTCVideoTrack> track) override;
    scoped_refptr<RTCAudioTrack> FindAudioTrack(const char* track_id) override;
    scoped_refptr<RTCVideoTrack> FindVideoTrack(const char* track_id) override;
    const char* label() const override { return id_.c_str(); }
    const char* id() const override { return id_.c_str(); }

    std::vector<scoped_refptr<RTCAudioTrack>> audio_tracks();
    std::vector<scoped_refptr<RTCVideoTrack>> video_tracks();

  private:
    std::string id_;
    std::mutex mutex_;
    std::vector<scoped_refptr<RTCAudioTrack>> audio_;
    std::vector<scoped_refptr<RTCVideoTrack>> video_;
};

class Session;

class RtpSenderImpl : public RTCRtpSender {
  public:
    explicit RtpSenderImpl(scoped_refptr<RTCMediaTrack> track) : track_(track), id_(track->id()) {}
    scoped_refptr<RTCMediaTrack> track() const override { return track_; }
    const char* id() const override { return id_.c_str(); }

  private:
    scoped_refptr<RTCMediaTrack> track_;
    std::string id_;
};

class RtpReceiverImpl : public RTCRtpReceiver {
  public:
    RtpReceiverImpl(scoped_refptr<RTCMediaTrack> track, std::weak_ptr<Session> session)
        : track_(track), id_(track->id()), session_(std::move(session)) {}
    scoped_refptr<RTCMediaTrack> track() const override { return track_; }
    const char* id() const override { return id_.c_str(); }
    void audioPlay(const char* file_name) override;

  private:
    scoped_refptr<RTCMediaTrack> track_;
    std::string id_;
    std::weak_ptr<Session> session_;
};

// ---------------------------------------------------------------------------
// The factory (factory.cpp)

class PeerConnectionFactoryImpl : public RTCPeerConnectionFactory {
  public:
    PeerConnectionFactoryImpl();
    bool Initialize() override { return true; }
    bool Terminate() override { return true; }
    scoped_refptr<RTCPeerConnection> Create(
        const RTCConfiguration& configuration,
        scoped_refptr<RTCMediaConstraints> constraints) override;
    void Delete(scoped_refptr<RTCPeerConnection> peerconnection) override;
    scoped_refptr<RTCAudioDevice> GetAudioDevice() override;
    scoped_refptr<RTCVideoDevice> GetVideoDevice() override;
    scoped_refptr<RTCAudioSource> CreateAudioSource(const char* label) override;
    scoped_refptr<RTCVideoSource> CreateVideoSource(
        scoped_refptr<RTCVideoCapturer> capturer, const char* label,
        scoped_refptr<RTCMediaConstraints> constraints) override;
    scoped_refptr<RTCAudioTrack> CreateAudioTrack(scoped_refptr<RTCAudioSource> source,
                                                  const char* track_id) override;
    scoped_refptr<RTCVideoTrack> CreateVideoTrack(scoped_refptr<RTCVideoSource> source,
                                                  const char* track_id) override;
    scoped_refptr<RTCMediaStream> CreateStream(const char* stream_id) override;
};

scoped_refptr<RTCPeerConnection> CreatePeerConnection(const RTCConfiguration& configuration);

inline std::string Str(const char* s) {
    return s ? std::string(s) : std::string();
}

}  // namespace media
}  // namespace libwebrtc

#endif
