// One peer connection: a pipeline with one webrtcbin, its local send branches and
// the decoders of what the far end sends.
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/sdp/sdp.h>
#define GST_USE_UNSTABLE_API
#include <gst/webrtc/webrtc.h>
#include <pthread.h>

#include <chrono>
#include <cstring>
#include <list>
#include <set>
#include <sstream>

#include "media_internal.h"

namespace libwebrtc {
namespace media {

// ---------------------------------------------------------------------------
// Worker

Worker::Worker() : state_(std::make_shared<State>()) {
    thread_ = std::thread(Run, state_);
}

Worker::~Worker() {
    Stop();
    if (!thread_.joinable()) return;
    // The last reference to a session can drop inside one of its own tasks.
    if (OnWorkerThread())
        thread_.detach();
    else
        thread_.join();
}

void Worker::Post(std::function<void()> task) {
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        if (state_->stop) return;
        state_->tasks.push_back(std::move(task));
    }
    state_->cv.notify_one();
}

void Worker::PostDelayed(int delay_ms, std::function<void()> task) {
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        if (state_->stop) return;
        state_->timers.emplace(
            std::chrono::steady_clock::now() + std::chrono::milliseconds(delay_ms),
            std::move(task));
    }
    state_->cv.notify_one();
}

void Worker::Stop() {
    std::deque<std::function<void()>> tasks;
    std::multimap<std::chrono::steady_clock::time_point, std::function<void()>> timers;
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->stop = true;
        tasks.swap(state_->tasks);
        timers.swap(state_->timers);
    }
    state_->cv.notify_all();
    // Dropped tasks are destroyed here, outside the lock: they may hold the
    // last reference to their session.
}

void Worker::Run(std::shared_ptr<State> s) {
    pthread_setname_np(pthread_self(), "zrtc-pc");
    std::unique_lock<std::mutex> lock(s->mutex);
    while (!s->stop) {
        std::function<void()> task;
        auto now = std::chrono::steady_clock::now();
        if (!s->timers.empty() && s->timers.begin()->first <= now) {
            task = std::move(s->timers.begin()->second);
            s->timers.erase(s->timers.begin());
        } else if (!s->tasks.empty()) {
            task = std::move(s->tasks.front());
            s->tasks.pop_front();
        } else if (s->timers.empty()) {
            s->cv.wait(lock);
            continue;
        } else {
            auto due = s->timers.begin()->first;  // the node may go while we wait
            s->cv.wait_until(lock, due);
            continue;
        }
        lock.unlock();
        task();
        task = nullptr;
        lock.lock();
    }
}

// ---------------------------------------------------------------------------

namespace {

constexpr int kPromiseTimeoutMs = 5000;
constexpr int kCapsWaitMs = 1500;
constexpr int kGatheringAfterFirstCandidateMs = 1000;
constexpr int kGatheringMaxMs = 2000;
constexpr const char* kAudioRaw8k =
    "audio/x-raw,format=S16LE,rate=8000,channels=1,layout=interleaved";

RTCSignalingState MapSignaling(GstWebRTCSignalingState s) {
    switch (s) {
        case GST_WEBRTC_SIGNALING_STATE_HAVE_LOCAL_OFFER:
            return RTCSignalingStateHaveLocalOffer;
        case GST_WEBRTC_SIGNALING_STATE_HAVE_REMOTE_OFFER:
            return RTCSignalingStateHaveRemoteOffer;
        case GST_WEBRTC_SIGNALING_STATE_HAVE_LOCAL_PRANSWER:
            return RTCSignalingStateHaveLocalPrAnswer;
        case GST_WEBRTC_SIGNALING_STATE_HAVE_REMOTE_PRANSWER:
            return RTCSignalingStateHaveRemotePrAnswer;
        case GST_WEBRTC_SIGNALING_STATE_CLOSED:
            return RTCSignalingStateClosed;
        default:
            return RTCSignalingStateStable;
    }
}

RTCIceConnectionState MapIce(GstWebRTCICEConnectionState s) {
    switch (s) {
        case GST_WEBRTC_ICE_CONNECTION_STATE_CHECKING:
            return RTCIceConnectionStateChecking;
        case GST_WEBRTC_ICE_CONNECTION_STATE_CONNECTED:
            return RTCIceConnectionStateConnected;
        case GST_WEBRTC_ICE_CONNECTION_STATE_COMPLETED:
            return RTCIceConnectionStateCompleted;
        case GST_WEBRTC_ICE_CONNECTION_STATE_FAILED:
            return RTCIceConnectionStateFailed;
        case GST_WEBRTC_ICE_CONNECTION_STATE_DISCONNECTED:
            return RTCIceConnectionStateDisconnected;
        case GST_WEBRTC_ICE_CONNECTION_STATE_CLOSED:
            return RTCIceConnectionStateClosed;
        default:
            return RTCIceConnectionStateNew;
    }
}

std::string SdpText(const GstWebRTCSessionDescription* desc) {
    if (!desc || !desc->sdp) return std::string();
    gchar* t = gst_sdp_message_as_text(desc->sdp);
    std::string s(t ? t : "");
    g_free(t);
    return s;
}

// Stream and track id of m-line `mline` from a=msid or a=ssrc ... msid:.
bool MsidOf(const GstSDPMessage* msg, guint mline, std::string* stream, std::string* track) {
    if (!msg || mline >= gst_sdp_message_medias_len(msg)) return false;
    const GstSDPMedia* m = gst_sdp_message_get_media(msg, mline);
    for (guint i = 0; i < gst_sdp_media_attributes_len(m); i++) {
        const GstSDPAttribute* a = gst_sdp_media_get_attribute(m, i);
        const char* v = nullptr;
        if (!g_strcmp0(a->key, "msid"))
            v = a->value;
        else if (!g_strcmp0(a->key, "ssrc") && a->value && std::strstr(a->value, " msid:"))
            v = std::strstr(a->value, " msid:") + 6;
        if (!v) continue;
        std::istringstream in(v);
        in >> *stream >> *track;
        if (!stream->empty()) return true;
    }
    return false;
}

// Waits for webrtcbin to answer a promise without ever blocking forever.
class PromiseWaiter {
  public:
    PromiseWaiter() : state_(std::make_shared<State>()) {
        promise_ = gst_promise_new_with_change_func(
            &PromiseWaiter::Changed, new std::shared_ptr<State>(state_),
            [](gpointer d) { delete static_cast<std::shared_ptr<State>*>(d); });
    }
    ~PromiseWaiter() { gst_promise_unref(promise_); }
    GstPromise* promise() const { return promise_; }

    // The reply (owned by the promise) or null with *error set.
    const GstStructure* Wait(const std::atomic<bool>& cancelled, std::string* error) {
        auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(kPromiseTimeoutMs);
        {
            std::unique_lock<std::mutex> lock(state_->mutex);
            while (!state_->done && !cancelled && std::chrono::steady_clock::now() < deadline)
                state_->cv.wait_for(lock, std::chrono::milliseconds(20));
        }
        if (gst_promise_wait(promise_) == GST_PROMISE_RESULT_PENDING ||
            !IsDone()) {  // not answered: give up on it
            gst_promise_interrupt(promise_);
            *error = cancelled ? "peer connection closed" : "timed out";
            return nullptr;
        }
        const GstStructure* reply = gst_promise_get_reply(promise_);
        if (reply && gst_structure_has_field(reply, "error")) {
            GError* err = nullptr;
            gst_structure_get(reply, "error", G_TYPE_ERROR, &err, nullptr);
            *error = err ? err->message : "failed";
            g_clear_error(&err);
            return nullptr;
        }
        return reply;
    }

  private:
    struct State {
        std::mutex mutex;
        std::condition_variable cv;
        bool done = false;
    };
    bool IsDone() {
        std::lock_guard<std::mutex> lock(state_->mutex);
        return state_->done;
    }
    static void Changed(GstPromise*, gpointer d) {
        auto& s = *static_cast<std::shared_ptr<State>*>(d);
        {
            std::lock_guard<std::mutex> lock(s->mutex);
            s->done = true;
        }
        s->cv.notify_all();
    }
    std::shared_ptr<State> state_;
    GstPromise* promise_;
};

}  // namespace

// ---------------------------------------------------------------------------

class Session : public std::enable_shared_from_this<Session> {
  public:
    explicit Session(const RTCConfiguration& config) : config_(config) {}
    ~Session();
    bool Init();

    int AddStream(scoped_refptr<RTCMediaStream> stream);
    int RemoveStream(scoped_refptr<RTCMediaStream> stream);
    void CreateSdp(bool offer, OnSdpCreateSuccess success, OnSdpCreateFailure failure);
    void SetDescription(bool local, std::string sdp, std::string type, OnSetSdpSuccess success,
                        OnSetSdpFailure failure);
    scoped_refptr<RTCSessionDescription> LocalDescription();
    scoped_refptr<RTCSessionDescription> RemoteDescription();
    void AddCandidate(const char* candidate, int mline);
    void SetObserver(RTCPeerConnectionObserver* observer);
    scoped_refptr<RTCRtpSender> Sender(bool video, const char* label);
    scoped_refptr<RTCRtpReceiver> Receiver(bool video);
    void PlayFile(const std::string& file);
    void Close();

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
        GstElement* appsrc = nullptr;           // video: registered with the fanout
        GstElement* volume = nullptr;           // audio: registered with the control
    };
    struct Playback {
        GstElement* pipeline;  // file decoder
        GstElement* appsrc;    // its entry into this call's mixer
    };
    struct RemoteStream {
        scoped_refptr<MediaStreamImpl> stream;
        bool announced = false;
    };

    // Observer and SDP handlers run only through this, on the worker thread.
    template <typename F>
    void Deliver(bool needs_observer, F&& fn);
    template <typename F>
    void Notify(F&& fn) {
        Deliver(true, [&] { fn(observer_); });
    }
    template <typename F>
    void Post(F&& fn) {
        auto self = shared_from_this();
        worker_.Post([self, fn]() mutable { fn(self.get()); });
    }

    template <typename Handler>
    void ConnectSignal(gpointer instance, const char* signal, Handler handler);

    void AttachForOffer();
    void AttachForAnswer(const GstSDPMessage* offer);
    bool AttachTrack(LocalTrack& track, int mline);
    void AddRecvOnlyTransceivers();
    void WaitSinkCaps();

    void OnSignalingChanged();
    void OnGatheringChanged();
    void OnIceConnectionChanged();
    void OnIceCandidate(guint mline, const char* candidate);
    void OnPadAdded(GstPad* pad);
    void GatheringDone(unsigned generation);
    std::string MidOf(guint mline);

    RTCConfiguration config_;
    GstElement* pipeline_ = nullptr;
    GstElement* webrtc_ = nullptr;
    Worker worker_;

    // Callback gate.
    std::mutex gate_mutex_;
    std::condition_variable gate_cv_;
    RTCPeerConnectionObserver* observer_ = nullptr;
    int in_callback_ = 0;
    std::thread::id callback_thread_;
    std::atomic<bool> closed_{false};

    std::mutex mutex_;  // everything below
    bool shut_ = false;
    std::list<LocalTrack> local_tracks_;  // stable addresses for the worker
    std::vector<scoped_refptr<RTCMediaStream>> local_streams_;
    std::vector<scoped_refptr<RTCRtpSender>> senders_;
    std::map<std::string, RemoteStream> remote_streams_;
    scoped_refptr<RTCRtpReceiver> audio_receiver_, video_receiver_;
    std::vector<std::pair<std::shared_ptr<AudioControl>, GstElement*>> remote_volumes_;
    std::vector<std::pair<guint, std::string>> candidates_;
    GstSDPMessage* remote_sdp_ = nullptr;  // for msid lookups of remote pads
    GstElement* mixer_ = nullptr;          // audio mixer before the PCMA encoder
    std::vector<Playback> playbacks_;
    bool local_set_ = false;

    // Worker thread only.
    unsigned gather_generation_ = 0;
    bool candidate_timer_armed_ = false;
};

Session::~Session() {
    Close();
    if (remote_sdp_) gst_sdp_message_free(remote_sdp_);
    if (mixer_) gst_object_unref(mixer_);
    for (auto& p : playbacks_) {
        gst_object_unref(p.appsrc);
        GstElement* pipeline = p.pipeline;
        Reap([pipeline] { gst_object_unref(pipeline); });
    }
    if (pipeline_) {
        // Possibly on one of GStreamer's own threads: unref elsewhere.
        GstElement* pipeline = pipeline_;
        Reap([pipeline] {
            gst_element_set_state(pipeline, GST_STATE_NULL);
            gst_object_unref(pipeline);
        });
    }
}

template <typename Handler>
void Session::ConnectSignal(gpointer instance, const char* signal, Handler handler) {
    g_signal_connect_data(
        instance, signal, reinterpret_cast<GCallback>(handler),
        new std::weak_ptr<Session>(weak_from_this()),
        [](gpointer d, GClosure*) { delete static_cast<std::weak_ptr<Session>*>(d); },
        GConnectFlags(0));
}

static std::shared_ptr<Session> Lock(gpointer data) {
    return static_cast<std::weak_ptr<Session>*>(data)->lock();
}

bool Session::Init() {
    pipeline_ = gst_pipeline_new(nullptr);
    webrtc_ = gst_element_factory_make("webrtcbin", nullptr);
    if (!pipeline_ || !webrtc_) {
        GST_ERROR("webrtcbin missing (gstreamer1.0-plugins-bad, gstreamer1.0-nice)");
        if (webrtc_) gst_object_unref(webrtc_);
        webrtc_ = nullptr;
        return false;
    }
    gst_object_ref_sink(pipeline_);
    // webrtcbin's own max-compat bundles video onto the audio transport, which
    // then fails; separate transports are what max-compat promises.
    GstWebRTCBundlePolicy bundle = GST_WEBRTC_BUNDLE_POLICY_BALANCED;
    if (config_.bundle_policy == kBundlePolicyMaxBundle)
        bundle = GST_WEBRTC_BUNDLE_POLICY_MAX_BUNDLE;
    if (config_.bundle_policy == kBundlePolicyMaxCompat) bundle = GST_WEBRTC_BUNDLE_POLICY_NONE;
    g_object_set(webrtc_, "bundle-policy", bundle, "latency", 100u, nullptr);
    for (const IceServer& server : config_.ice_servers) {
        std::string uri(server.uri);
        if (uri.rfind("stun:", 0) == 0) {
            g_object_set(webrtc_, "stun-server", ("stun://" + uri.substr(5)).c_str(), nullptr);
        } else if (uri.rfind("turn:", 0) == 0 || uri.rfind("turns:", 0) == 0) {
            size_t colon = uri.find(':');
            gchar* user = g_uri_escape_string(server.username, nullptr, FALSE);
            gchar* pass = g_uri_escape_string(server.password, nullptr, FALSE);
            std::string turn =
                uri.substr(0, colon) + "://" + user + ":" + pass + "@" + uri.substr(colon + 1);
            g_free(user);
            g_free(pass);
            gboolean ok = FALSE;
            g_signal_emit_by_name(webrtc_, "add-turn-server", turn.c_str(), &ok);
        }
    }
    gst_bin_add(GST_BIN(pipeline_), webrtc_);
    GObject* ice = nullptr;
    g_object_get(webrtc_, "ice-agent", &ice, nullptr);
    if (ice) {
        if (config_.tcp_candidate_policy == TcpCandidatePolicy::kTcpCandidatePolicyDisabled &&
            g_object_class_find_property(G_OBJECT_GET_CLASS(ice), "ice-tcp"))
            g_object_set(ice, "ice-tcp", FALSE, nullptr);
        // libnice waits for UPnP discovery (200 ms) before it reports gathering
        // complete; host candidates need none of it, and a non-trickle call waits
        // for that report before its INVITE or answer can go out.
        if (g_object_class_find_property(G_OBJECT_GET_CLASS(ice), "agent")) {
            GObject* agent = nullptr;
            g_object_get(ice, "agent", &agent, nullptr);
            if (agent) {
                if (g_object_class_find_property(G_OBJECT_GET_CLASS(agent), "upnp"))
                    g_object_set(agent, "upnp", FALSE, nullptr);
                g_object_unref(agent);
            }
        }
        g_object_unref(ice);
    }
    InstallBusDropHandler(pipeline_, "call");

    ConnectSignal(
        webrtc_, "notify::signaling-state", +[](GstElement*, GParamSpec*, gpointer d) {
            if (auto s = Lock(d)) s->OnSignalingChanged();
        });
    ConnectSignal(
        webrtc_, "notify::ice-gathering-state", +[](GstElement*, GParamSpec*, gpointer d) {
            if (auto s = Lock(d)) s->OnGatheringChanged();
        });
    ConnectSignal(
        webrtc_, "notify::ice-connection-state", +[](GstElement*, GParamSpec*, gpointer d) {
            if (auto s = Lock(d)) s->OnIceConnectionChanged();
        });
    ConnectSignal(
        webrtc_, "on-ice-candidate", +[](GstElement*, guint mline, gchar* cand, gpointer d) {
            if (auto s = Lock(d)) s->OnIceCandidate(mline, cand);
        });
    ConnectSignal(
        webrtc_, "pad-added", +[](GstElement*, GstPad* pad, gpointer d) {
            if (auto s = Lock(d)) s->OnPadAdded(pad);
        });
    if (gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        GST_ERROR("call pipeline refused to start");
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Callback gate

template <typename F>
void Session::Deliver(bool needs_observer, F&& fn) {
    {
        std::lock_guard<std::mutex> lock(gate_mutex_);
        if (closed_ || (needs_observer && !observer_)) return;
        ++in_callback_;
        callback_thread_ = std::this_thread::get_id();
    }
    try {
        fn();
    } catch (const std::exception& e) {
        GST_WARNING("callback threw: %s", e.what());
    } catch (...) {
        GST_WARNING("callback threw");
    }
    {
        std::lock_guard<std::mutex> lock(gate_mutex_);
        --in_callback_;
    }
    gate_cv_.notify_all();
}

void Session::SetObserver(RTCPeerConnectionObserver* observer) {
    std::unique_lock<std::mutex> lock(gate_mutex_);
    observer_ = observer;
    // A deregistered observer may be deleted at once: let a running callback end.
    if (!observer)
        gate_cv_.wait(lock, [&] {
            return in_callback_ == 0 || callback_thread_ == std::this_thread::get_id();
        });
}

void Session::Close() {
    {
        std::unique_lock<std::mutex> lock(gate_mutex_);
        closed_ = true;
        // Closing from inside a callback must not wait for itself.
        gate_cv_.wait(lock, [&] {
            return in_callback_ == 0 || callback_thread_ == std::this_thread::get_id();
        });
    }
    std::vector<std::pair<std::shared_ptr<VideoFanout>, GstElement*>> fanouts;
    std::vector<std::pair<std::shared_ptr<AudioControl>, GstElement*>> volumes;
    std::vector<GstElement*> file_pipelines;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (shut_) return;
        shut_ = true;
        for (LocalTrack& t : local_tracks_) {
            if (t.appsrc) fanouts.emplace_back(t.fanout, t.appsrc);
            if (t.volume) volumes.emplace_back(t.control, t.volume);
            t.appsrc = t.volume = nullptr;
        }
        volumes.insert(volumes.end(), remote_volumes_.begin(), remote_volumes_.end());
        remote_volumes_.clear();
        for (auto& p : playbacks_) file_pipelines.push_back(p.pipeline);
    }
    worker_.Stop();
    for (auto& f : fanouts) {
        f.first->RemoveAppSrc(f.second);
        gst_object_unref(f.second);
    }
    for (auto& v : volumes) {
        v.first->Detach(v.second);
        gst_object_unref(v.second);
    }
    for (GstElement* p : file_pipelines) gst_element_set_state(p, GST_STATE_NULL);
    // Waits for the streaming threads; none of them may be the caller.
    if (pipeline_) gst_element_set_state(pipeline_, GST_STATE_NULL);
    signaling_ = RTCSignalingStateClosed;
    ice_connection_ = RTCIceConnectionStateClosed;
}

// ---------------------------------------------------------------------------
// Local media

int Session::AddStream(scoped_refptr<RTCMediaStream> stream) {
    auto* ours = dynamic_cast<MediaStreamImpl*>(stream.get());
    if (!ours) return -1;
    std::lock_guard<std::mutex> lock(mutex_);
    if (shut_) return -1;
    local_streams_.push_back(stream);
    auto add = [&](scoped_refptr<RTCMediaTrack> track, LocalTrack t) {
        for (const LocalTrack& existing : local_tracks_)
            if (existing.track == track) return;
        t.track = track;
        t.stream_id = ours->id();
        local_tracks_.push_back(t);
        senders_.push_back(new RefCountedObject<RtpSenderImpl>(track));
    };
    for (auto& a : ours->audio_tracks()) {
        auto* at = dynamic_cast<AudioTrackImpl*>(a.get());
        if (!at || at->remote()) continue;
        LocalTrack t;
        t.control = at->control();
        add(a.get(), t);
    }
    for (auto& v : ours->video_tracks()) {
        auto* vt = dynamic_cast<VideoTrackImpl*>(v.get());
        if (!vt || vt->remote()) continue;
        LocalTrack t;
        t.video = true;
        t.fanout = vt->fanout();
        add(v.get(), t);
    }
    return 0;
}

int Session::RemoveStream(scoped_refptr<RTCMediaStream> stream) {
    auto* ours = dynamic_cast<MediaStreamImpl*>(stream.get());
    if (!ours) return -1;
    std::lock_guard<std::mutex> lock(mutex_);
    // Tracks already negotiated keep flowing: there is no renegotiation.
    std::set<RTCMediaTrack*> ids;
    for (auto& a : ours->audio_tracks()) ids.insert(a.get());
    for (auto& v : ours->video_tracks()) ids.insert(v.get());
    for (auto it = local_tracks_.begin(); it != local_tracks_.end();) {
        if (!it->attaching && ids.count(it->track.get())) {
            RTCMediaTrack* t = it->track.get();
            for (auto s = senders_.begin(); s != senders_.end(); ++s)
                if ((*s)->track().get() == t) {
                    senders_.erase(s);
                    break;
                }
            it = local_tracks_.erase(it);
        } else {
            ++it;
        }
    }
    return 0;
}

bool Session::AttachTrack(LocalTrack& t, int mline) {
    GError* err = nullptr;
    GstElement* bin = nullptr;
    if (t.video) {
        unsigned kbps = config_.local_video_bandwidth >= 64 ? config_.local_video_bandwidth : 512;
        gchar* desc = g_strdup_printf(
            "appsrc name=src is-live=true format=time do-timestamp=true leaky-type=downstream "
            "max-buffers=3 ! queue max-size-buffers=3 leaky=downstream ! videoconvert ! "
            "video/x-raw,format=I420 ! %s ! video/x-h264,profile=constrained-baseline ! "
            "rtph264pay config-interval=-1 aggregate-mode=zero-latency pt=96 ! capsfilter "
            "caps=\"application/x-rtp,media=video,encoding-name=H264,payload=96,clock-rate=90000\"",
            H264EncoderDescription(kbps));
        bin = gst_parse_bin_from_description(desc, TRUE, &err);
        g_free(desc);
    } else {
        const char* src = UseAudioCaptureDevice()
                              ? "autoaudiosrc"
                              : "audiotestsrc is-live=true wave=sine freq=440 volume=0.1 "
                                "samplesperbuffer=160";
        gchar* desc = g_strdup_printf(
            "%s ! audioconvert ! audioresample ! %s ! volume name=vol ! "
            "audiomixer name=mix start-time-selection=first ! %s ! alawenc ! "
            "rtppcmapay pt=8 ! capsfilter caps=\"application/x-rtp,media=audio,"
            "encoding-name=PCMA,payload=8,clock-rate=8000\"",
            src, kAudioRaw8k, kAudioRaw8k);
        bin = gst_parse_bin_from_description(desc, TRUE, &err);
        g_free(desc);
    }
    if (!bin || err) {
        GST_ERROR("send branch: %s", err ? err->message : "?");
        g_clear_error(&err);
        if (bin) gst_object_unref(bin);
        return false;
    }
    gst_bin_add(GST_BIN(pipeline_), bin);
    gchar* pad_name = mline >= 0 ? g_strdup_printf("sink_%d", mline) : g_strdup("sink_%u");
    GstPad* sinkpad = gst_element_request_pad_simple(webrtc_, pad_name);
    g_free(pad_name);
    GstPad* srcpad = gst_element_get_static_pad(bin, "src");
    if (t.video) {
        // Both ends make their own parameter sets and levels; left in the caps
        // they make webrtcbin find the far end's H264 offer incompatible. The
        // parameter sets travel in-band (config-interval=-1).
        gst_pad_add_probe(
            srcpad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
            [](GstPad*, GstPadProbeInfo* info, gpointer) {
                GstEvent* ev = GST_PAD_PROBE_INFO_EVENT(info);
                if (GST_EVENT_TYPE(ev) != GST_EVENT_CAPS) return GST_PAD_PROBE_OK;
                GstCaps* caps = nullptr;
                gst_event_parse_caps(ev, &caps);
                caps = gst_caps_copy(caps);
                gst_structure_remove_fields(gst_caps_get_structure(caps, 0), "sprop-parameter-sets",
                                            "profile-level-id", "profile", nullptr);
                gst_event_unref(ev);
                GST_PAD_PROBE_INFO_DATA(info) = gst_event_new_caps(caps);
                gst_caps_unref(caps);
                return GST_PAD_PROBE_OK;
            },
            nullptr, nullptr);
    }
    bool linked = sinkpad && gst_pad_link(srcpad, sinkpad) == GST_PAD_LINK_OK;
    if (sinkpad && g_object_class_find_property(G_OBJECT_GET_CLASS(sinkpad), "msid"))
        g_object_set(sinkpad, "msid", t.stream_id.c_str(), nullptr);
    gst_object_unref(srcpad);
    if (!linked) {
        GST_ERROR("cannot link a %s track to webrtcbin", t.video ? "video" : "audio");
        if (sinkpad) {
            gst_element_release_request_pad(webrtc_, sinkpad);
            gst_object_unref(sinkpad);
        }
        gst_bin_remove(GST_BIN(pipeline_), bin);
        return false;
    }
    gst_object_unref(sinkpad);
    gst_element_sync_state_with_parent(bin);

    std::lock_guard<std::mutex> lock(mutex_);
    t.attached = true;
    if (shut_) return true;  // Close has run meanwhile: register nothing
    if (t.video) {
        t.appsrc = gst_bin_get_by_name(GST_BIN(bin), "src");
        t.fanout->AddAppSrc(t.appsrc);
    } else {
        t.volume = gst_bin_get_by_name(GST_BIN(bin), "vol");
        t.control->Attach(t.volume);
        if (!mixer_) mixer_ = gst_bin_get_by_name(GST_BIN(bin), "mix");
    }
    return true;
}

void Session::AttachForOffer() {
    std::vector<LocalTrack*> pending;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        // Audio first: the m-line order most peers expect.
        for (int pass = 0; pass < 2; ++pass)
            for (LocalTrack& t : local_tracks_)
                if (!t.attaching && t.video == (pass == 1)) {
                    t.attaching = true;
                    pending.push_back(&t);
                }
    }
    for (LocalTrack* t : pending) AttachTrack(*t, -1);
}

void Session::AttachForAnswer(const GstSDPMessage* offer) {
    std::set<guint> used;
    for (guint i = 0; i < gst_sdp_message_medias_len(offer); ++i) {
        const GstSDPMedia* m = gst_sdp_message_get_media(offer, i);
        if (gst_sdp_media_get_port(m) == 0) continue;  // rejected m-line
        bool video = !g_strcmp0(gst_sdp_media_get_media(m), "video");
        bool audio = !g_strcmp0(gst_sdp_media_get_media(m), "audio");
        if (!video && !audio) continue;
        LocalTrack* t = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            for (LocalTrack& lt : local_tracks_)
                if (!lt.attaching && lt.video == video) {
                    lt.attaching = true;
                    t = &lt;
                    break;
                }
        }
        if (t) AttachTrack(*t, static_cast<int>(i));
    }
}

void Session::AddRecvOnlyTransceivers() {
    bool has_audio = false, has_video = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const LocalTrack& t : local_tracks_)
            if (t.attached) (t.video ? has_video : has_audio) = true;
    }
    auto add = [&](const char* caps_text) {
        GstCaps* caps = gst_caps_from_string(caps_text);
        GstWebRTCRTPTransceiver* trans = nullptr;
        g_signal_emit_by_name(webrtc_, "add-transceiver",
                              GST_WEBRTC_RTP_TRANSCEIVER_DIRECTION_RECVONLY, caps, &trans);
        gst_caps_unref(caps);
        if (trans) gst_object_unref(trans);
    };
    if (config_.offer_to_receive_audio && !has_audio)
        add("application/x-rtp,media=audio,encoding-name=PCMA,payload=8,clock-rate=8000");
    if (config_.offer_to_receive_video && !has_video)
        add("application/x-rtp,media=video,encoding-name=H264,payload=96,clock-rate=90000");
}

// Offers made before the encoders negotiated lose their ssrc/msid lines.
void Session::WaitSinkCaps() {
    for (int waited = 0; waited < kCapsWaitMs && !closed_; waited += 5) {
        bool all = true;
        GstIterator* it = gst_element_iterate_sink_pads(webrtc_);
        GValue v = G_VALUE_INIT;
        while (gst_iterator_next(it, &v) == GST_ITERATOR_OK) {
            GstCaps* c = gst_pad_get_current_caps(GST_PAD(g_value_get_object(&v)));
            if (c)
                gst_caps_unref(c);
            else
                all = false;
            g_value_reset(&v);
        }
        g_value_unset(&v);
        gst_iterator_free(it);
        if (all) return;
        g_usleep(5000);
    }
    GST_WARNING("sink pads without caps: the description may lack ssrc lines");
}

void Session::PlayFile(const std::string& file) {
    if (!g_file_test(file.c_str(), G_FILE_TEST_IS_REGULAR)) {
        GST_WARNING("audioPlay: no such file '%s'", file.c_str());
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (shut_ || !mixer_) return;
    // The file decodes in its own pipeline, paced by its own clock, so that a
    // non-live decoder never disturbs the live call pipeline.
    gchar* desc = g_strdup_printf(
        "appsrc name=src is-live=true format=time do-timestamp=true "
        "caps=%s ! queue",
        kAudioRaw8k);
    GError* err = nullptr;
    GstElement* entry = gst_parse_bin_from_description(desc, TRUE, &err);
    g_free(desc);
    gchar* fdesc = g_strdup_printf(
        "filesrc name=file ! decodebin ! audioconvert ! audioresample ! %s ! "
        "appsink name=out sync=true max-buffers=4",
        kAudioRaw8k);
    GstElement* decoder = err ? nullptr : gst_parse_launch(fdesc, &err);
    g_free(fdesc);
    if (!entry || !decoder || err) {
        GST_ERROR("audioPlay: %s", err ? err->message : "?");
        g_clear_error(&err);
        if (entry) gst_object_unref(entry);
        if (decoder) gst_object_unref(decoder);
        return;
    }
    GstElement* filesrc = gst_bin_get_by_name(GST_BIN(decoder), "file");
    g_object_set(filesrc, "location", file.c_str(), nullptr);
    gst_object_unref(filesrc);
    InstallBusDropHandler(decoder, "audioPlay");

    // Inside the send branch's bin, next to the mixer, so the pads can link.
    gst_bin_add(GST_BIN(GST_ELEMENT_PARENT(mixer_)), entry);
    GstPad* mixpad = gst_element_request_pad_simple(mixer_, "sink_%u");
    GstPad* srcpad = gst_element_get_static_pad(entry, "src");
    gst_pad_link(srcpad, mixpad);
    gst_object_unref(srcpad);
    gst_object_unref(mixpad);
    gst_element_sync_state_with_parent(entry);

    GstElement* appsrc = gst_bin_get_by_name(GST_BIN(entry), "src");
    GstElement* out = gst_bin_get_by_name(GST_BIN(decoder), "out");
    GstAppSinkCallbacks cb{};
    cb.new_sample = [](GstAppSink* sink, gpointer d) -> GstFlowReturn {
        GstSample* s = gst_app_sink_pull_sample(sink);
        if (!s) return GST_FLOW_EOS;
        GstBuffer* b = gst_buffer_copy(gst_sample_get_buffer(s));
        gst_sample_unref(s);
        GST_BUFFER_PTS(b) = GST_BUFFER_DTS(b) = GST_CLOCK_TIME_NONE;
        gst_app_src_push_buffer(GST_APP_SRC(d), b);
        return GST_FLOW_OK;
    };
    cb.eos = [](GstAppSink*, gpointer d) { gst_app_src_end_of_stream(GST_APP_SRC(d)); };
    gst_app_sink_set_callbacks(GST_APP_SINK(out), &cb, gst_object_ref(appsrc), gst_object_unref);
    gst_object_unref(out);
    playbacks_.push_back({decoder, appsrc});
    gst_element_set_state(decoder, GST_STATE_PLAYING);
}

// ---------------------------------------------------------------------------
// Offer / answer

void Session::CreateSdp(bool offer, OnSdpCreateSuccess success, OnSdpCreateFailure failure) {
    Post([offer, success, failure](Session* s) {
        if (s->closed_) return;
        if (offer) {
            s->AttachForOffer();
            s->AddRecvOnlyTransceivers();
        }
        s->WaitSinkCaps();
        PromiseWaiter waiter;
        g_signal_emit_by_name(s->webrtc_, offer ? "create-offer" : "create-answer", nullptr,
                              waiter.promise());
        std::string error;
        const GstStructure* reply = waiter.Wait(s->closed_, &error);
        GstWebRTCSessionDescription* desc = nullptr;
        if (reply)
            gst_structure_get(reply, offer ? "offer" : "answer",
                              GST_TYPE_WEBRTC_SESSION_DESCRIPTION, &desc, nullptr);
        if (!desc) {
            if (error.empty()) error = "no description";
            GST_WARNING("create-%s failed: %s", offer ? "offer" : "answer", error.c_str());
            s->Deliver(false, [&] {
                if (failure) failure(error.c_str());
            });
            return;
        }
        std::string text = SdpText(desc);
        gst_webrtc_session_description_free(desc);
        s->Deliver(false, [&] {
            if (success) success(text.c_str(), offer ? "offer" : "answer");
        });
    });
}

void Session::SetDescription(bool local, std::string sdp, std::string type, OnSetSdpSuccess success,
                             OnSetSdpFailure failure) {
    Post([=](Session* s) {
        if (s->closed_) return;
        auto fail = [&](const std::string& error) {
            GST_WARNING("set-%s-description(%s): %s", local ? "local" : "remote", type.c_str(),
                        error.c_str());
            s->Deliver(false, [&] {
                if (failure) failure(error.c_str());
            });
        };
        GstWebRTCSDPType sdp_type;
        // A provisional answer followed by the final one never connects in
        // webrtcbin: every answer is final.
        if (type == "offer")
            sdp_type = GST_WEBRTC_SDP_TYPE_OFFER;
        else if (type == "answer" || type == "pranswer")
            sdp_type = GST_WEBRTC_SDP_TYPE_ANSWER;
        else
            return fail("unknown description type '" + type + "'");
        GstSDPMessage* msg = nullptr;
        if (gst_sdp_message_new_from_text(sdp.c_str(), &msg) != GST_SDP_OK || !msg ||
            gst_sdp_message_medias_len(msg) == 0) {
            if (msg) gst_sdp_message_free(msg);
            return fail("unparsable SDP");
        }
        if (!local) {
            // webrtcbin needs a=mid on every m-line; older peers omit it.
            for (guint i = 0; i < gst_sdp_message_medias_len(msg); ++i) {
                auto* m = const_cast<GstSDPMedia*>(gst_sdp_message_get_media(msg, i));
                if (!gst_sdp_media_get_attribute_val(m, "mid"))
                    gst_sdp_media_add_attribute(m, "mid", std::to_string(i).c_str());
            }
            GstSDPMessage* copy = nullptr;
            gst_sdp_message_copy(msg, &copy);
            std::lock_guard<std::mutex> lock(s->mutex_);
            if (s->remote_sdp_) gst_sdp_message_free(s->remote_sdp_);
            s->remote_sdp_ = copy;
        }
        GstWebRTCSessionDescription* desc = gst_webrtc_session_description_new(sdp_type, msg);
        PromiseWaiter waiter;
        g_signal_emit_by_name(s->webrtc_,
                              local ? "set-local-description" : "set-remote-description", desc,
                              waiter.promise());
        std::string error;
        bool ok = waiter.Wait(s->closed_, &error) != nullptr || error.empty();
        if (!ok) {
            gst_webrtc_session_description_free(desc);
            return fail(error);
        }
        if (!local && sdp_type == GST_WEBRTC_SDP_TYPE_OFFER) s->AttachForAnswer(desc->sdp);
        gst_webrtc_session_description_free(desc);
        if (local) {
            {
                std::lock_guard<std::mutex> lock(s->mutex_);
                s->local_set_ = true;
            }
            // Non-trickle users wait for completion: never let it hang.
            unsigned generation = ++s->gather_generation_;
            s->candidate_timer_armed_ = false;
            if (s->gathering_ != RTCIceGatheringStateGathering) {
                s->gathering_ = RTCIceGatheringStateGathering;
                s->Notify([](RTCPeerConnectionObserver* o) {
                    o->OnIceGatheringState(RTCIceGatheringStateGathering);
                });
            }
            s->worker_.PostDelayed(kGatheringMaxMs, [w = s->weak_from_this(), generation] {
                if (auto self = w.lock()) self->GatheringDone(generation);
            });
            GstWebRTCICEGatheringState state;
            g_object_get(s->webrtc_, "ice-gathering-state", &state, nullptr);
            if (state == GST_WEBRTC_ICE_GATHERING_STATE_COMPLETE) s->GatheringDone(generation);
        }
        s->Deliver(false, [&] {
            if (success) success();
        });
    });
}

void Session::GatheringDone(unsigned generation) {
    if (generation != gather_generation_ || gathering_ != RTCIceGatheringStateGathering) return;
    gathering_ = RTCIceGatheringStateComplete;
    Notify(
        [](RTCPeerConnectionObserver* o) { o->OnIceGatheringState(RTCIceGatheringStateComplete); });
}

scoped_refptr<RTCSessionDescription> Session::LocalDescription() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!local_set_ || shut_) return nullptr;
    }
    GstWebRTCSessionDescription* desc = nullptr;
    g_object_get(webrtc_, "local-description", &desc, nullptr);
    if (!desc) return nullptr;
    // Candidates reported but not yet written into the description go in too.
    std::vector<std::pair<guint, std::string>> candidates;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        candidates = candidates_;
    }
    for (auto& c : candidates) {
        if (c.first >= gst_sdp_message_medias_len(desc->sdp)) continue;
        auto* m = const_cast<GstSDPMedia*>(gst_sdp_message_get_media(desc->sdp, c.first));
        std::string value = c.second.rfind("candidate:", 0) == 0 ? c.second.substr(10) : c.second;
        bool present = false;
        for (guint i = 0; i < gst_sdp_media_attributes_len(m) && !present; ++i) {
            const GstSDPAttribute* a = gst_sdp_media_get_attribute(m, i);
            present = !g_strcmp0(a->key, "candidate") && value == Str(a->value);
        }
        if (!present) gst_sdp_media_add_attribute(m, "candidate", value.c_str());
    }
    std::string text = SdpText(desc);
    std::string type = gst_webrtc_sdp_type_to_string(desc->type);
    gst_webrtc_session_description_free(desc);
    return new RefCountedObject<SessionDescriptionImpl>(text, type);
}

scoped_refptr<RTCSessionDescription> Session::RemoteDescription() {
    if (closed_) return nullptr;
    GstWebRTCSessionDescription* desc = nullptr;
    g_object_get(webrtc_, "remote-description", &desc, nullptr);
    if (!desc) return nullptr;
    std::string text = SdpText(desc);
    std::string type = gst_webrtc_sdp_type_to_string(desc->type);
    gst_webrtc_session_description_free(desc);
    return new RefCountedObject<SessionDescriptionImpl>(text, type);
}

void Session::AddCandidate(const char* candidate, int mline) {
    if (!candidate || mline < 0 || closed_) return;
    std::string c(candidate);
    if (c.rfind("a=", 0) == 0) c = c.substr(2);
    Post([c, mline](Session* s) {
        if (!s->closed_)
            g_signal_emit_by_name(s->webrtc_, "add-ice-candidate", static_cast<guint>(mline),
                                  c.c_str());
    });
}

// ---------------------------------------------------------------------------
// webrtcbin events (GStreamer threads): state is read here, reported on the worker.

void Session::OnSignalingChanged() {
    GstWebRTCSignalingState st;
    g_object_get(webrtc_, "signaling-state", &st, nullptr);
    RTCSignalingState mapped = MapSignaling(st);
    signaling_ = mapped;
    Post([mapped](Session* s) {
        s->Notify([&](RTCPeerConnectionObserver* o) { o->OnSignalingState(mapped); });
    });
}

void Session::OnGatheringChanged() {
    GstWebRTCICEGatheringState st;
    g_object_get(webrtc_, "ice-gathering-state", &st, nullptr);
    if (st != GST_WEBRTC_ICE_GATHERING_STATE_COMPLETE) return;
    // Queued behind the candidate reports, so they are all in by then.
    Post([](Session* s) { s->GatheringDone(s->gather_generation_); });
}

void Session::OnIceConnectionChanged() {
    GstWebRTCICEConnectionState st;
    g_object_get(webrtc_, "ice-connection-state", &st, nullptr);
    RTCIceConnectionState mapped = MapIce(st);
    ice_connection_ = mapped;
    Post([mapped](Session* s) {
        s->Notify([&](RTCPeerConnectionObserver* o) { o->OnIceConnectionState(mapped); });
    });
}

void Session::OnIceCandidate(guint mline, const char* candidate) {
    std::string c = Str(candidate);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        candidates_.emplace_back(mline, c);
    }
    Post([mline, c](Session* s) {
        if (!s->candidate_timer_armed_ && s->gathering_ == RTCIceGatheringStateGathering) {
            s->candidate_timer_armed_ = true;
            unsigned generation = s->gather_generation_;
            s->worker_.PostDelayed(kGatheringAfterFirstCandidateMs,
                                   [w = s->weak_from_this(), generation] {
                                       if (auto self = w.lock()) self->GatheringDone(generation);
                                   });
        }
        scoped_refptr<RTCIceCandidate> cand(
            new RefCountedObject<IceCandidateImpl>(c, s->MidOf(mline), static_cast<int>(mline)));
        s->Notify([&](RTCPeerConnectionObserver* o) { o->OnIceCandidate(cand); });
    });
}

std::string Session::MidOf(guint mline) {
    GArray* transceivers = nullptr;
    g_signal_emit_by_name(webrtc_, "get-transceivers", &transceivers);
    std::string mid;
    for (guint i = 0; transceivers && i < transceivers->len; ++i) {
        GstWebRTCRTPTransceiver* t = g_array_index(transceivers, GstWebRTCRTPTransceiver*, i);
        guint index = 0;
        gchar* m = nullptr;
        g_object_get(t, "mlineindex", &index, "mid", &m, nullptr);
        if (index == mline && m) mid = m;
        g_free(m);
    }
    if (transceivers) g_array_unref(transceivers);
    return mid.empty() ? std::to_string(mline) : mid;
}

// On a jitterbuffer thread once the far end's media arrives.
void Session::OnPadAdded(GstPad* pad) {
    if (GST_PAD_DIRECTION(pad) != GST_PAD_SRC || closed_) return;
    guint mline = 0;
    GstWebRTCRTPTransceiver* trans = nullptr;
    g_object_get(pad, "transceiver", &trans, nullptr);
    if (trans) {
        g_object_get(trans, "mlineindex", &mline, nullptr);
        gst_object_unref(trans);
    }
    GstCaps* caps = gst_pad_get_current_caps(pad);
    if (!caps) caps = gst_pad_query_caps(pad, nullptr);
    const GstStructure* st = gst_caps_get_structure(caps, 0);
    std::string kind = Str(gst_structure_get_string(st, "media"));
    std::string encoding = Str(gst_structure_get_string(st, "encoding-name"));
    gst_caps_unref(caps);

    std::string desc;
    if (kind == "video" && encoding == "H264") {
        desc = std::string("queue ! rtph264depay ! h264parse ! ") + H264DecoderName() +
               " ! videoconvert ! video/x-raw,format=I420 ! "
               "appsink name=out sync=false max-buffers=2 drop=true";
    } else if (kind == "audio" && (encoding == "PCMA" || encoding == "PCMU")) {
        desc = encoding == "PCMA" ? "queue ! rtppcmadepay ! alawdec"
                                  : "queue ! rtppcmudepay ! mulawdec";
        desc += " ! audioconvert ! audioresample ! volume name=vol";
    } else {
        GST_WARNING("remote %s/%s stream not decoded", kind.c_str(), encoding.c_str());
        desc = "fakesink sync=false async=false";
    }
    GError* err = nullptr;
    GstElement* bin = gst_parse_bin_from_description(desc.c_str(), TRUE, &err);
    if (!bin || err) {
        GST_ERROR("receive branch: %s", err ? err->message : "?");
        g_clear_error(&err);
        if (bin) gst_object_unref(bin);
        return;
    }
    GstElement* sink = nullptr;
    GstElement* volume = gst_bin_get_by_name(GST_BIN(bin), "vol");
    if (volume) {
        if (AudioOutputAvailable()) {
            sink = gst_element_factory_make("autoaudiosink", nullptr);
            // No usable sound card must not cost the call.
            if (sink && gst_element_set_state(sink, GST_STATE_READY) == GST_STATE_CHANGE_FAILURE) {
                gst_element_set_state(sink, GST_STATE_NULL);
                gst_object_unref(sink);
                sink = nullptr;
            }
        }
        if (!sink) {
            sink = gst_element_factory_make("fakesink", nullptr);
            g_object_set(sink, "sync", FALSE, "async", FALSE, nullptr);
        }
    }

    scoped_refptr<VideoTrackImpl> video_track;
    scoped_refptr<AudioTrackImpl> audio_track;
    std::string stream_id = "remote_stream";
    std::string track_id = "remote_" + kind + std::to_string(mline);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        std::string s, t;
        if (MsidOf(remote_sdp_, mline, &s, &t)) {
            stream_id = s;
            if (!t.empty()) track_id = t;
        }
    }
    if (kind == "video") {
        video_track = new RefCountedObject<VideoTrackImpl>(track_id, nullptr);
        GstElement* out = gst_bin_get_by_name(GST_BIN(bin), "out");
        if (out) {
            GstAppSinkCallbacks cb{};
            cb.new_sample = [](GstAppSink* s, gpointer d) -> GstFlowReturn {
                GstSample* sample = gst_app_sink_pull_sample(s);
                if (!sample) return GST_FLOW_EOS;
                (*static_cast<std::shared_ptr<VideoFanout>*>(d))->Deliver(sample);
                gst_sample_unref(sample);
                return GST_FLOW_OK;
            };
            gst_app_sink_set_callbacks(
                GST_APP_SINK(out), &cb, new std::shared_ptr<VideoFanout>(video_track->fanout()),
                [](gpointer d) { delete static_cast<std::shared_ptr<VideoFanout>*>(d); });
            gst_object_unref(out);
        }
    } else if (volume) {
        audio_track = new RefCountedObject<AudioTrackImpl>(track_id, true);
        audio_track->control()->Attach(volume);
        std::lock_guard<std::mutex> lock(mutex_);
        remote_volumes_.emplace_back(audio_track->control(), volume);  // takes the reference
        volume = nullptr;
    }
    if (volume) gst_object_unref(volume);

    gst_bin_add(GST_BIN(pipeline_), bin);
    if (sink) {
        gst_bin_add(GST_BIN(pipeline_), sink);
        gst_element_link(bin, sink);
        gst_element_sync_state_with_parent(sink);
    }
    gst_element_sync_state_with_parent(bin);
    GstPad* binpad = gst_element_get_static_pad(bin, "sink");
    if (gst_pad_link(pad, binpad) != GST_PAD_LINK_OK)
        GST_ERROR("cannot link remote %s", kind.c_str());
    gst_object_unref(binpad);
    scoped_refptr<RTCMediaTrack> track;
    if (video_track) track = video_track.get();
    if (audio_track) track = audio_track.get();
    if (!track) return;

    scoped_refptr<MediaStreamImpl> stream;
    bool new_stream = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        RemoteStream& rs = remote_streams_[stream_id];
        if (!rs.stream) rs.stream = new RefCountedObject<MediaStreamImpl>(stream_id);
        stream = rs.stream;
        new_stream = !rs.announced;
        rs.announced = true;
        if (video_track) {
            stream->AddTrack(scoped_refptr<RTCVideoTrack>(video_track.get()));
            video_receiver_ = new RefCountedObject<RtpReceiverImpl>(track, weak_from_this());
        } else {
            stream->AddTrack(scoped_refptr<RTCAudioTrack>(audio_track.get()));
            audio_receiver_ = new RefCountedObject<RtpReceiverImpl>(track, weak_from_this());
        }
    }
    Post([stream, track, new_stream](Session* s) {
        if (new_stream)
            s->Notify([&](RTCPeerConnectionObserver* o) {
                o->OnAddStream(scoped_refptr<RTCMediaStream>(stream.get()));
            });
        s->Notify([&](RTCPeerConnectionObserver* o) {
            o->OnAddTrack(scoped_refptr<RTCMediaStream>(stream.get()), track);
        });
    });
}

scoped_refptr<RTCRtpSender> Session::Sender(bool video, const char* label) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& s : senders_) {
        bool is_video = !std::strcmp(s->track()->kind(), "video");
        if (is_video == video && (!label || !std::strcmp(s->id(), label))) return s;
    }
    return nullptr;
}

scoped_refptr<RTCRtpReceiver> Session::Receiver(bool video) {
    std::lock_guard<std::mutex> lock(mutex_);
    return video ? video_receiver_ : audio_receiver_;
}

void RtpReceiverImpl::audioPlay(const char* file_name) {
    if (!file_name) return;
    if (auto s = session_.lock()) s->PlayFile(file_name);
}

// ---------------------------------------------------------------------------

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
