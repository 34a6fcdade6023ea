// Session set-up (pipeline, webrtcbin, ICE agent, signals) and teardown.
#include "session.h"

#include <nice/agent.h>

#include <cstdlib>
#include <string>

#include "media_settings.h"

namespace libwebrtc {
namespace media {

Session::~Session() {
    Close();
    for (auto& p : local_.playbacks) {
        GstElement* pipeline = p.pipeline.release();
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

bool Session::Init() {
    pipeline_ = gst_pipeline_new(nullptr);
    ElementRef webrtc(gst_element_factory_make("webrtcbin", nullptr));
    if (!pipeline_ || !webrtc) {
        GST_ERROR("webrtcbin missing (gstreamer1.0-plugins-bad, gstreamer1.0-nice)");
        return false;
    }
    gst_object_ref_sink(pipeline_);
    webrtc_ = webrtc.release();
    ConfigureBin();
    gst_bin_add(GST_BIN(pipeline_), webrtc_);
    ConfigureIceAgent();
    StartJitterBuffersEarly();
    Mark("media: peer connection made");
    InstallBusDropHandler(pipeline_, "call");
    ConnectSignals();
    if (gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        GST_ERROR("call pipeline refused to start");
        return false;
    }
    return true;
}

void Session::ConfigureBin() {
    // webrtcbin's own max-compat bundles video onto the audio transport, which
    // then fails; separate transports are what max-compat promises.
    GstWebRTCBundlePolicy bundle = GST_WEBRTC_BUNDLE_POLICY_BALANCED;
    if (config_.bundle_policy == kBundlePolicyMaxBundle)
        bundle = GST_WEBRTC_BUNDLE_POLICY_MAX_BUNDLE;
    if (config_.bundle_policy == kBundlePolicyMaxCompat) bundle = GST_WEBRTC_BUNDLE_POLICY_NONE;
    g_object_set(webrtc_, "bundle-policy", bundle, "latency", kJitterLatencyMs, nullptr);
    for (const IceServer& server : config_.ice_servers) {
        std::string uri(server.uri);
        if (uri.rfind("stun:", 0) == 0) {
            g_object_set(webrtc_, "stun-server", ("stun://" + uri.substr(5)).c_str(), nullptr);
        } else if (uri.rfind("turn:", 0) == 0 || uri.rfind("turns:", 0) == 0) {
            size_t colon = uri.find(':');
            GCharRef user(g_uri_escape_string(server.username, nullptr, FALSE));
            GCharRef pass(g_uri_escape_string(server.password, nullptr, FALSE));
            std::string turn = uri.substr(0, colon) + "://" + user.get() + ":" + pass.get() + "@" +
                               uri.substr(colon + 1);
            gboolean ok = FALSE;
            g_signal_emit_by_name(webrtc_, "add-turn-server", turn.c_str(), &ok);
        }
    }
}

// A jitter buffer holds the first packet of a stream for its whole latency before
// anything plays; on a LAN the packets come in order, so a stream starts as soon as
// a few consecutive ones are in, and the latency still absorbs later jitter.
void Session::StartJitterBuffersEarly() {
    GstIterator* it = gst_bin_iterate_elements(GST_BIN(webrtc_));
    GValue v = G_VALUE_INIT;
    while (gst_iterator_next(it, &v) == GST_ITERATOR_OK) {
        GstElement* e = GST_ELEMENT(g_value_get_object(&v));
        GstElementFactory* f = gst_element_get_factory(e);
        if (f && !g_strcmp0(GST_OBJECT_NAME(f), "rtpbin")) {
            g_signal_connect(e, "new-jitterbuffer",
                             G_CALLBACK(+[](GstElement*, GstElement* jb, guint, guint, gpointer) {
                                 g_object_set(jb, "faststart-min-packets", kFaststartPackets,
                                              nullptr);
                             }),
                             nullptr);
        }
        g_value_reset(&v);
    }
    g_value_unset(&v);
    gst_iterator_free(it);
}

static bool HasProperty(gpointer object, const char* name) {
    return g_object_class_find_property(G_OBJECT_GET_CLASS(object), name) != nullptr;
}

// Host candidates only on the addresses the installation allows
// (ZARNRTC_MEDIA_ADDRESSES, comma-separated); unset: every usable interface, as libnice
// finds them. A list with no usable address allows loopback only: a misconfigured
// device fails its calls visibly instead of offering every interface.
static void RestrictLocalAddresses(GObject* agent) {
    const std::vector<std::string> list = zarnrtc::settings::mediaSettings().addresses;
    if (list.empty()) return;
    int added = 0;
    for (const std::string& item : list) {
        NiceAddress address;
        nice_address_init(&address);
        if (nice_address_set_from_string(&address, item.c_str()) &&
            nice_agent_add_local_address(NICE_AGENT(agent), &address))
            ++added;
        else
            GST_WARNING("ZARNRTC_MEDIA_ADDRESSES: '%s' is not an address", item.c_str());
    }
    if (added > 0) return;
    GST_ERROR("ZARNRTC_MEDIA_ADDRESSES holds no usable address; media stays on loopback");
    NiceAddress loopback;
    nice_address_init(&loopback);
    nice_address_set_from_string(&loopback, "127.0.0.1");
    nice_agent_add_local_address(NICE_AGENT(agent), &loopback);
}

void Session::ConfigureIceAgent() {
    GObject* raw = nullptr;
    g_object_get(webrtc_, "ice-agent", &raw, nullptr);
    GObjectRef ice(raw);
    if (!ice) return;
    if (config_.tcp_candidate_policy == TcpCandidatePolicy::kTcpCandidatePolicyDisabled &&
        HasProperty(ice.get(), "ice-tcp"))
        g_object_set(ice.get(), "ice-tcp", FALSE, nullptr);
    // libnice waits for UPnP discovery (200 ms) before it reports gathering
    // complete; host candidates need none of it, and a non-trickle call waits
    // for that report before its INVITE or answer can go out.
    if (!HasProperty(ice.get(), "agent")) return;
    g_object_get(ice.get(), "agent", &raw, nullptr);
    GObjectRef agent(raw);
    if (agent && HasProperty(agent.get(), "upnp"))
        g_object_set(agent.get(), "upnp", FALSE, nullptr);
    // Checks paced at the smallest interval ICE allows (5 ms instead of libnice's 20):
    // a device has a handful of candidate pairs, and each pacing step delays the call.
    if (agent && HasProperty(agent.get(), "stun-pacing-timer"))
        g_object_set(agent.get(), "stun-pacing-timer", kIcePacingMs, nullptr);
    if (agent && NICE_IS_AGENT(agent.get())) RestrictLocalAddresses(agent.get());
}

template <typename Handler>
void Session::ConnectSignal(gpointer instance, const char* signal, Handler handler) {
    // Handlers hold only a weak reference: a late signal never touches a freed session.
    g_signal_connect_data(
        instance, signal, reinterpret_cast<GCallback>(handler),
        new std::weak_ptr<Session>(weak_from_this()),
        [](gpointer d, GClosure*) { delete static_cast<std::weak_ptr<Session>*>(d); },
        GConnectFlags(0));
}

static std::shared_ptr<Session> Lock(gpointer data) {
    return static_cast<std::weak_ptr<Session>*>(data)->lock();
}

void Session::ConnectSignals() {
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
        webrtc_, "notify::connection-state", +[](GstElement* w, GParamSpec*, gpointer d) {
            GstWebRTCPeerConnectionState st;
            g_object_get(w, "connection-state", &st, nullptr);
            auto s = Lock(d);
            if (s && st == GST_WEBRTC_PEER_CONNECTION_STATE_CONNECTED)
                s->Mark("media: connected (ICE and DTLS)");
        });
    ConnectSignal(
        webrtc_, "pad-added", +[](GstElement*, GstPad* pad, gpointer d) {
            if (auto s = Lock(d)) s->OnPadAdded(pad);
        });
}

void Session::Close() {
    gate_.Close();
    {
        // A promise wait on the worker ends now rather than at its timeout.
        std::lock_guard<std::mutex> lock(wait_mutex_);
        if (waiting_) waiting_->Cancel();
    }
    DetachAll();
}

void Session::DetachAll() {
    std::vector<std::pair<std::shared_ptr<VideoFanout>, ElementRef>> fanouts;
    std::vector<RemoteVolume> volumes;
    std::vector<GstElement*> file_pipelines;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (shut_) return;
        shut_ = true;
        for (LocalTrack& t : local_.tracks) {
            if (t.appsrc) fanouts.emplace_back(t.fanout, std::move(t.appsrc));
            if (t.volume) volumes.push_back({t.control, std::move(t.volume)});
        }
        for (RemoteVolume& v : remote_.volumes) volumes.push_back(std::move(v));
        remote_.volumes.clear();
        for (auto& p : local_.playbacks) file_pipelines.push_back(p.pipeline.get());
    }
    worker_.Stop();
    for (auto& f : fanouts) f.first->RemoveAppSrc(f.second.get());
    for (auto& v : volumes) v.control->Detach(v.volume.get());
    for (GstElement* p : file_pipelines) gst_element_set_state(p, GST_STATE_NULL);
    // Waits for the streaming threads; none of them may be the caller.
    if (pipeline_) gst_element_set_state(pipeline_, GST_STATE_NULL);
    signaling_ = RTCSignalingStateClosed;
    ice_connection_ = RTCIceConnectionStateClosed;
}

}  // namespace media
}  // namespace libwebrtc
