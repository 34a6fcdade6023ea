// One peer connection: a pipeline with an rtpbin, one ICE stream and transport per
// m-line, the local send branches and the decoders of what the far end sends. The
// descriptions are written and read here (sdp_model.h, negotiate.h). Its parts:
//   session.cpp          set-up (pipeline, rtpbin) and teardown
//   negotiation.cpp      offer/answer, descriptions, gathering, the call plan
//   ice_events.cpp       the ICE agent's news: candidates, gathering, connectivity
//   rtp_setup.cpp        rtpbin: payload types, retransmission, jitter buffers
//   send_branch.cpp      local tracks and their encoders
//   receive_branch.cpp   what the far end sends: decoders, remote tracks and streams
//   transport.cpp        one m-line's path to the network (ICE, DTLS/SRTP, RTCP)
//   playback.cpp         audioPlay: a file mixed into what the far end hears
//   liveness.cpp         a far end that vanished
#ifndef ZARNRTC_MEDIA_SESSION_H
#define ZARNRTC_MEDIA_SESSION_H

#include <list>
#include <map>

#include "callback_gate.h"
#include "engine_link.h"
#include "gst_util.h"
#include "ice_agent.h"
#include "media_internal.h"
#include "negotiate.h"
#include "dtls.h"
#include "transport.h"
#include "worker.h"

namespace libwebrtc {
namespace media {

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

    // Written on the worker, read by the application.
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
    // One m-line of the call (worker thread only).
    struct Line {
        size_t index = 0;
        std::string kind;
        guint nice_stream = 0;  // 0: no ICE stream (rejected line)
        int components = 0;
        bool gathered = false;
        std::vector<sdp::Candidate> candidates;  // ours, as gathered
        NiceComponentState state[3] = {NICE_COMPONENT_STATE_DISCONNECTED,
                                       NICE_COMPONENT_STATE_DISCONNECTED,
                                       NICE_COMPONENT_STATE_DISCONNECTED};
        bool sending = false;  // a send branch is attached
        std::shared_ptr<SendGate> gate;
        std::unique_ptr<LineTransport> transport;
        std::shared_ptr<FarEndHeard> heard = std::make_shared<FarEndHeard>();
        std::shared_ptr<IceNudge> nudge[3];
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
    template <typename F>
    void PostWeak(F&& fn) {
        std::weak_ptr<Session> weak = weak_from_this();
        worker_.Post([weak, fn]() mutable {
            if (auto self = weak.lock()) fn(self.get());
        });
    }

    // --- set-up (session.cpp)
    bool MakeRtpBin();
    // Handlers hold only a weak reference: a late signal never touches a freed session.
    template <typename Handler>
    void ConnectSignal(gpointer instance, const char* signal, Handler handler) {
        g_signal_connect_data(
            instance, signal, reinterpret_cast<GCallback>(handler),
            new std::weak_ptr<Session>(weak_from_this()),
            [](gpointer d, GClosure*) { delete static_cast<std::weak_ptr<Session>*>(d); },
            GConnectFlags(0));
    }

    // --- negotiation (negotiation.cpp)
    void DoCreateSdp(bool offer, OnSdpCreateSuccess success, OnSdpCreateFailure failure);
    void DoSetDescription(bool local, const std::string& sdp, const std::string& type,
                          OnSetSdpSuccess success, OnSetSdpFailure failure);
    bool SetLocal(const std::string& type, std::string* error);
    bool TakeOffer(const std::string& text, std::string* error);
    bool TakeAnswer(const std::string& text, std::string* error);
    bool MakeOfferLines(std::string* error);
    bool MakeAnswerLines(std::string* error);
    bool EnsureIce();
    void ApplyPlan();
    void SetSignaling(RTCSignalingState state);
    sdp::Capabilities Caps() const;
    void ShareIdentity();

    // --- ICE (ice_events.cpp)
    Line* LineOf(guint nice_stream);
    void OnLocalCandidate(guint stream, const sdp::Candidate& candidate);
    void OnGathered(guint stream);
    void OnComponentState(guint stream, guint component, NiceComponentState state);
    void StartGathering();
    void GatheringDone(unsigned generation);
    void FillDefaults();
    void UpdateIceConnection();

    // --- rtpbin (rtp_setup.cpp)
    void ConnectRtpBin();
    GstCaps* PayloadCaps(guint session, guint pt);
    GstElement* RtxSender(guint session);
    GstElement* RtxReceiver(guint session);
    void ConfigureJitterBuffer(GstElement* jb, guint session);
    void AdaptJitterBuffers();
    void TuneRtpSession(const sdp::StreamPlan& plan);
    guint JitterLatencyMs(guint session);

    // --- measurements (measure.cpp)
    void MeasureSendBranch(GstElement* bin, bool video);
    void MeasureReceiveBranch(GstElement* bin);
    void ListenToReceiveBranch(GstElement* bin);
    void ReportStats();

    // --- send (send_branch.cpp)
    bool AttachSendBranch(Line& line, const sdp::StreamPlan& plan);
    void MarkFirstBuffer(GstElement* bin, GstPad* out, bool video);
    void RegisterSendBranch(LocalTrack& track, GstElement* bin);

    // --- receive (receive_branch.cpp)
    void OnPadAdded(GstPad* pad);
    bool DescribePad(GstPad* pad, RemotePad* out);
    scoped_refptr<RTCMediaTrack> MakeRemoteTrack(const RemotePad& pad, GstElement* bin);
    void LinkReceiveBranch(GstPad* pad, GstElement* bin, GstElement* sink);
    void AnnounceRemoteTrack(const RemotePad& pad, scoped_refptr<RTCMediaTrack> track);

    // --- transport
    void BuildTransport(Line& line, const sdp::StreamPlan& plan);
    void ComponentUp(Line& line, guint component);
    void OnTransportReady(size_t index);

    // --- playback (playback.cpp)
    void LinkToMixer(GstElement* entry);

    // --- liveness (liveness.cpp)
    void StartLivenessWatch();
    void CheckLiveness();
    void PeerLost(const std::string& why);

    // --- teardown (session.cpp)
    void DetachAll();
    void OnClose(std::function<void()> fn);

    RTCConfiguration config_;
    GstElement* pipeline_ = nullptr;  // owned; freed on the reaper thread
    GstElement* rtpbin_ = nullptr;    // owned by pipeline_
    Worker worker_;
    CallbackGate gate_;

    // Local media: tracks to send, their senders and branches.
    struct LocalMedia {
        std::list<LocalTrack> tracks;  // stable addresses for the worker
        std::vector<scoped_refptr<RTCMediaStream>> streams;
        std::vector<scoped_refptr<RTCRtpSender>> senders;
        ElementRef mixer;  // audio mixer before the audio encoder
        std::vector<Playback> playbacks;
    };
    // Remote media: what the far end sends.
    struct RemoteMedia {
        std::map<std::string, RemoteStream> streams;
        scoped_refptr<RTCRtpReceiver> audio_receiver, video_receiver;
        std::vector<RemoteVolume> volumes;
    };

    // Everything below up to the worker's state is guarded by mutex_, taken briefly
    // and never across a callback (PlayFile starts its own small pipeline under it).
    std::mutex mutex_;
    bool shut_ = false;  // Close has detached everything
    LocalMedia local_;
    RemoteMedia remote_;
    sdp::Description local_desc_;  // with the candidates gathered so far
    std::string local_type_;       // "" until a local description is set
    std::string remote_text_, remote_type_;
    sdp::CallPlan shared_plan_;  // for the streaming threads (payload types, names)
    std::vector<std::function<void()>> on_close_;  // releases gates and transports
    struct JitterBuffer {
        guint session;
        bool video;
        ElementRef element;
    };
    std::vector<JitterBuffer> jitter_buffers_;  // as rtpbin made them
    std::vector<ElementRef> rtx_elements_;      // rtprtxsend/rtprtxreceive, for figures

    // Worker thread only.
    std::shared_ptr<IceAgent> ice_;
    std::vector<Line> lines_;
    sdp::Local identity_;
    sdp::Description offer_, answer_;  // ours or the far end's, as the role has it
    bool have_offer_ = false, have_answer_ = false, offerer_ = false;
    bool planned_ = false;
    sdp::CallPlan plan_;
    unsigned gather_generation_ = 0;
    bool gathering_reported_ = false;
    bool alternative_shared_ = false;
    bool liveness_watched_ = false;
    bool expect_arrivals_ = false;  // the far end's description says it sends
    bool peer_lost_ = false;
    gint64 dead_peer_us_ = 0;

    const std::shared_ptr<ArrivalClock> arrivals_ = std::make_shared<ArrivalClock>();
    // Measured for benchmarks (measure.cpp); shared with pad probes.
    const std::shared_ptr<std::atomic<int>> key_frames_sent_ =
        std::make_shared<std::atomic<int>>(0);
    const std::shared_ptr<std::atomic<int>> key_frame_requests_received_ =
        std::make_shared<std::atomic<int>>(0);
    const std::shared_ptr<std::atomic<int>> key_frame_requests_sent_ =
        std::make_shared<std::atomic<int>>(0);
    const std::shared_ptr<std::atomic<int>> audio_jitter_latency_ms_ =
        std::make_shared<std::atomic<int>>(kAudioJitterFloorMs);
    const unsigned long timeline_id_ = NextTimelineId();
    static unsigned long NextTimelineId() {
        static std::atomic<unsigned long> next{1};
        return next++;
    }
};

}  // namespace media
}  // namespace libwebrtc

#endif
