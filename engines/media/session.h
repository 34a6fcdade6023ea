// One peer connection: a pipeline with one webrtcbin, its local send branches
// and the decoders of what the far end sends. Its parts live in:
//   session.cpp          set-up (pipeline, ICE) and teardown
//   negotiation.cpp      offer/answer, descriptions, candidates, webrtcbin events
//   send_branch.cpp      local tracks and their encoders
//   receive_branch.cpp   remote pads: decoders, remote tracks and streams
//   playback.cpp         audioPlay: a file mixed into what the far end hears
#ifndef ZARNRTC_MEDIA_SESSION_H
#define ZARNRTC_MEDIA_SESSION_H

#include <list>

#include "callback_gate.h"
#include "engine_link.h"
#include "gst_util.h"
#include "media_internal.h"
#include "sdp_edit.h"
#include "worker.h"

namespace libwebrtc {
namespace media {

// When anything last arrived from the far end (liveness.cpp). Shared with the pad
// probes, which may outlive the session.
struct ArrivalClock {
    void Touch();
    std::atomic<gint64> last_us{0};
};

// What a remote pad carries and whose it is.
struct RemotePad {
    guint mline = 0;
    std::string kind, encoding;
    std::string stream_id, track_id;
};

class Session : public std::enable_shared_from_this<Session> {
  public:
    explicit Session(const RTCConfiguration& config) : config_(config) {}
    ~Session();
    bool Init();
    void Close();

    int AddStream(scoped_refptr<RTCMediaStream> stream);
    int RemoveStream(scoped_refptr<RTCMediaStream> stream);
    scoped_refptr<RTCRtpSender> Sender(bool video, const char* label);
    scoped_refptr<RTCRtpReceiver> Receiver(bool video);
    void PlayFile(const std::string& file);

    void CreateSdp(bool offer, OnSdpCreateSuccess success, OnSdpCreateFailure failure);
    void SetDescription(bool local, std::string sdp, std::string type, OnSetSdpSuccess success,
                        OnSetSdpFailure failure);
    scoped_refptr<RTCSessionDescription> LocalDescription();
    scoped_refptr<RTCSessionDescription> RemoteDescription();
    void AddCandidate(const char* candidate, int mline);
    void SetObserver(RTCPeerConnectionObserver* observer) { gate_.SetObserver(observer); }

    // Written on GStreamer threads and the worker, read by the application.
    std::atomic<int> signaling_{RTCSignalingStateStable};
    std::atomic<int> ice_connection_{RTCIceConnectionStateNew};
    std::atomic<int> gathering_{RTCIceGatheringStateNew};

  private:
    struct LocalTrack {
        scoped_refptr<RTCMediaTrack> track;
        std::string stream_id;
        bool video = false;
        bool attaching = false;  // picked by the worker; no longer removable
        bool attached = false;
        std::shared_ptr<VideoFanout> fanout;    // video
        std::shared_ptr<AudioControl> control;  // audio
        ElementRef appsrc;                      // video: registered with the fanout
        ElementRef volume;                      // audio: registered with the control
    };
    struct Playback {
        ElementRef pipeline;  // file decoder
        ElementRef appsrc;    // its entry into this call's mixer
    };
    struct RemoteStream {
        scoped_refptr<MediaStreamImpl> stream;
        bool announced = false;
    };
    struct RemoteVolume {
        std::shared_ptr<AudioControl> control;
        ElementRef volume;
    };

    // A set-up step on the opt-in timeline (engine_link.h), any thread.
    void Mark(const char* event) const {
        if (zarn_timeline_on()) zarn_timeline_mark(timeline_id_, event);
    }

    // --- callbacks: only through the gate, on the worker thread
    template <typename F>
    void Notify(F&& fn) {
        gate_.Run(true, std::forward<F>(fn));
    }
    template <typename F>
    void Reply(F&& fn) {
        gate_.Run(false, [&](RTCPeerConnectionObserver*) { fn(); });
    }
    template <typename F>
    void Post(F&& fn) {
        auto self = shared_from_this();
        worker_.Post([self, fn]() mutable { fn(self.get()); });
    }

    // --- set-up (session.cpp)
    void ConfigureBin();
    void ConfigureIceAgent();
    void StartJitterBuffersEarly();
    void ConnectSignals();
    template <typename Handler>
    void ConnectSignal(gpointer instance, const char* signal, Handler handler);

    // --- negotiation (negotiation.cpp)
    void DoCreateSdp(bool offer, OnSdpCreateSuccess success, OnSdpCreateFailure failure);
    void DoSetDescription(bool local, const std::string& sdp, const std::string& type,
                          OnSetSdpSuccess success, OnSetSdpFailure failure);
    // Null with *error set when webrtcbin did not answer; wakes on Close.
    const GstStructure* Await(PromiseWaiter& waiter, std::string* error);
    void StartGathering();
    void GatheringDone(unsigned generation);
    void WaitSinkCaps();
    void OnSignalingChanged();
    void OnGatheringChanged();
    void OnIceConnectionChanged();
    void OnIceCandidate(guint mline, const char* candidate);
    std::string MidOf(guint mline);

    // --- send (send_branch.cpp)
    void AttachForOffer();
    void AttachForAnswer(const GstSDPMessage* offer);
    bool AttachTrack(LocalTrack& track, int mline, int video_payload = kVideoPayload);
    bool LinkToWebrtc(GstElement* bin, const LocalTrack& track, int mline);
    void MarkFirstBuffer(GstElement* bin, GstPad* out, bool video);
    void RegisterSendBranch(LocalTrack& track, GstElement* bin);
    void AddRecvOnlyTransceivers();

    // --- receive (receive_branch.cpp)
    void OnPadAdded(GstPad* pad);
    void NameRemotePad(RemotePad& pad);
    scoped_refptr<RTCMediaTrack> MakeRemoteTrack(const RemotePad& pad, GstElement* bin);
    void LinkReceiveBranch(GstPad* pad, GstElement* bin, GstElement* sink);
    void AnnounceRemoteTrack(const RemotePad& pad, scoped_refptr<RTCMediaTrack> track);

    // --- playback (playback.cpp)
    void LinkToMixer(GstElement* entry);

    // --- liveness (liveness.cpp)
    void WatchArrivals(GstPad* pad);
    void StartLivenessWatch();
    void CheckLiveness();
    void PeerLost(const std::string& why);

    // --- teardown (session.cpp)
    void DetachAll();

    RTCConfiguration config_;
    GstElement* pipeline_ = nullptr;  // owned; freed on the reaper thread
    GstElement* webrtc_ = nullptr;    // owned by pipeline_
    Worker worker_;
    CallbackGate gate_;

    std::mutex wait_mutex_;
    PromiseWaiter* waiting_ = nullptr;  // the worker's current promise wait

    // Local media: tracks to send, their senders and branches.
    struct LocalMedia {
        std::list<LocalTrack> tracks;  // stable addresses for the worker
        std::vector<scoped_refptr<RTCMediaStream>> streams;
        std::vector<scoped_refptr<RTCRtpSender>> senders;
        ElementRef mixer;  // audio mixer before the PCMA encoder
        std::vector<Playback> playbacks;
    };
    // Remote media: what the far end sends.
    struct RemoteMedia {
        std::map<std::string, RemoteStream> streams;
        scoped_refptr<RTCRtpReceiver> audio_receiver, video_receiver;
        std::vector<RemoteVolume> volumes;
        std::string sdp;  // for msid lookups of remote pads
    };

    // Everything below is guarded by mutex_, taken briefly and never across a
    // callback or a promise wait (PlayFile starts its own small pipeline under it).
    std::mutex mutex_;
    bool shut_ = false;  // Close has detached everything
    LocalMedia local_;
    RemoteMedia remote_;
    sdp::Candidates candidates_;  // reported so far, for LocalDescription
    bool local_set_ = false;

    // Worker thread only.
    unsigned gather_generation_ = 0;
    bool candidate_timer_armed_ = false;
    bool liveness_watched_ = false;
    bool expect_arrivals_ = false;  // the far end's description says it sends
    bool peer_lost_ = false;
    gint64 dead_peer_us_ = 0;

    const std::shared_ptr<ArrivalClock> arrivals_ = std::make_shared<ArrivalClock>();
    const unsigned long timeline_id_ = NextTimelineId();
    static unsigned long NextTimelineId() {
        static std::atomic<unsigned long> next{1};
        return next++;
    }
};

}  // namespace media
}  // namespace libwebrtc

#endif
