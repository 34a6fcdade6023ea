// One m-line's transport: ICE components, DTLS-SRTP or plain RTP, RTCP muxed or not.
//
//  plain, rtcp-mux:  send_rtp_src ─┬ funnel ─ nicesink(1)     nicesrc(1) ─ recv_rtp_sink
//                    send_rtcp_src ┘                          (rtpsession takes the
//                                                              muxed RTCP off the RTP pad)
//  plain, no mux:    send_rtp_src ─ nicesink(1)               nicesrc(1) ─ recv_rtp_sink
//                    send_rtcp_src ─ nicesink(2)              nicesrc(2) ─ recv_rtcp_sink
//  SRTP:             send_rtp_src ─ srtpenc ─┬ funnel ─ nicesink(c)
//                    send_rtcp_src ─ srtpenc ┘
//                    nicesrc(c) ─ [DTLS off to dtls.cpp] ─ srtpdec ─ recv_rtp_sink
//                                                                └ recv_rtcp_sink
//                    per component c; the keys come from the descriptions (a=crypto)
//                    or from a DTLS handshake on the component (dtls.cpp).
#include "transport.h"

#include <vector>

#include "dtls.h"
#include "engine_link.h"
#include "ice_agent.h"
#include "media_internal.h"

namespace libwebrtc {
namespace media {

namespace {

// RTP only (SRTP too: its header is clear): RTCP, DTLS and STUN do not show that
// media flows. Version 2, and not an RTCP packet type (RFC 5761 demultiplexing).
bool IsRtp(GstBuffer* buffer) {
    guint8 head[2];
    if (gst_buffer_extract(buffer, 0, head, 2) != 2) return false;
    return (head[0] & 0xC0) == 0x80 && (head[1] < 192 || head[1] > 223);
}

GstPadProbeReturn TouchArrival(GstPad*, GstPadProbeInfo* info, gpointer data) {
    if (IsRtp(gst_pad_probe_info_get_buffer(info)))
        static_cast<std::shared_ptr<ArrivalClock>*>(data)->get()->Touch();
    return GST_PAD_PROBE_OK;
}

// What the far end sends, as it arrives: the probe keeps the clock alive, since
// the pad may outlive the call.
void WatchArrivals(GstPad* pad, const std::shared_ptr<ArrivalClock>& clock) {
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, TouchArrival,
                      new std::shared_ptr<ArrivalClock>(clock),
                      [](gpointer d) { delete static_cast<std::shared_ptr<ArrivalClock>*>(d); });
}

bool LinkPads(GstElement* src, const char* src_name, GstElement* sink, const char* sink_name) {
    PadRef a(gst_element_get_static_pad(src, src_name));
    if (!a) a.reset(gst_element_request_pad_simple(src, src_name));
    PadRef b(gst_element_get_static_pad(sink, sink_name));
    if (!b) b.reset(gst_element_request_pad_simple(sink, sink_name));
    return a && b && gst_pad_link(a.get(), b.get()) == GST_PAD_LINK_OK;
}

}  // namespace

// ---------------------------------------------------------------------------
// LineTransport

struct LineTransport::Shared {
    TransportConfig config;
    TransportHooks hooks;
    std::shared_ptr<SendGate> rtp_gate;
    std::shared_ptr<SendGate> rtcp_gate = std::make_shared<SendGate>(false);
    std::mutex mutex;
    ElementRef enc[3];  // per component; set when encrypted
    SrtpKeys keys[3];   // what srtpdec is given: the far end's key, under mutex
    // Per component, made at Build and never replaced: read without the mutex.
    std::shared_ptr<DtlsEndpoint> dtls_endpoint[3];
    std::atomic<bool> keyed[3] = {false, false, false};  // SRTP may pass
    bool ice_ready[3] = {false, false, false};
    bool ready = false, failed = false, closed = false;

    bool encrypted() const {
        return config.profile != sdp::Profile::kAvp && config.profile != sdp::Profile::kAvpf;
    }
    bool dtls() const { return sdp::IsDtls(config.profile); }
    guint rtcp_component() const { return config.rtcp_mux ? 1 : 2; }

    // "media: <what>" for the first line, "media: line N <what>" for the others: a
    // timeline has one row per mark.
    void Mark(const char* what) const {
        if (!zarn_timeline_on()) return;
        std::string mark = std::string("media: ") + (config.session ? "line " : "") +
                           (config.session ? std::to_string(config.session) + " " : "") + what;
        zarn_timeline_mark(config.timeline_id, mark.c_str());
    }
    void Fail(const std::string& why);
    void Close();
    void Keyed(guint component, const SrtpKeys& keys);
    GstCaps* RemoteKey(guint component);
    GstPadProbeReturn Incoming(guint component, GstBuffer* buffer);
    void Update();
};

void LineTransport::Shared::Fail(const std::string& why) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (failed || closed) return;
        failed = true;
    }
    rtp_gate->Discard();
    rtcp_gate->Discard();
    GST_WARNING("transport of line %u: %s", config.session, why.c_str());
    if (hooks.failed) hooks.failed(why);
}

// The component's keys are in (from the descriptions, or from DTLS with the far
// end's certificate checked): srtpenc gets ours, srtpdec asks for theirs.
void LineTransport::Shared::Keyed(guint component, const SrtpKeys& k) {
    ElementRef e;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (component < 1 || component > 2 || !enc[component] || closed || failed) return;
        keys[component] = k;
        e.reset(GST_ELEMENT(gst_object_ref(enc[component].get())));
    }
    // The key last: only a new key makes srtpenc build its session again.
    for (const char* p : {"rtp-cipher", "rtcp-cipher"})
        gst_util_set_object_arg(G_OBJECT(e.get()), p, "aes-128-icm");
    for (const char* p : {"rtp-auth", "rtcp-auth"})
        gst_util_set_object_arg(G_OBJECT(e.get()), p, k.auth.c_str());
    GstBuffer* key = gst_buffer_new_memdup(k.local.data(), k.local.size());
    g_object_set(e.get(), "key", key, nullptr);
    gst_buffer_unref(key);
    if (dtls()) Mark("DTLS keys set");
    keyed[component] = true;
    Update();
}

// srtpdec's request for a new SSRC's key; null (the packet is dropped) before the
// keys are in. Never a null cipher: nothing unprotected gets through.
GstCaps* LineTransport::Shared::RemoteKey(guint component) {
    std::lock_guard<std::mutex> lock(mutex);
    if (component < 1 || component > 2 || keys[component].remote.empty()) return nullptr;
    const SrtpKeys& k = keys[component];
    GstBuffer* key = gst_buffer_new_memdup(k.remote.data(), k.remote.size());
    GstCaps* caps = gst_caps_new_simple(
        "application/x-srtp", "srtp-key", GST_TYPE_BUFFER, key, "srtp-cipher", G_TYPE_STRING,
        "aes-128-icm", "srtp-auth", G_TYPE_STRING, k.auth.c_str(), "srtcp-cipher", G_TYPE_STRING,
        "aes-128-icm", "srtcp-auth", G_TYPE_STRING, k.auth.c_str(), nullptr);
    gst_buffer_unref(key);
    return caps;
}

// On the component's nicesrc thread: DTLS goes to its endpoint; SRTP waits for keys.
GstPadProbeReturn LineTransport::Shared::Incoming(guint component, GstBuffer* buffer) {
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ)) return GST_PAD_PROBE_DROP;
    bool is_dtls = IsDtlsPacket(map.data, map.size);
    if (is_dtls && dtls_endpoint[component]) dtls_endpoint[component]->Receive(map.data, map.size);
    gst_buffer_unmap(buffer, &map);
    return !is_dtls && keyed[component] ? GST_PAD_PROBE_OK : GST_PAD_PROBE_DROP;
}

// Opens what can be opened; reports ready once, when RTP can flow.
void LineTransport::Shared::Update() {
    bool rtp = false, rtcp = false, report = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (failed || closed) return;
        auto usable = [&](guint c) { return ice_ready[c] && (!encrypted() || keyed[c]); };
        rtp = usable(1);
        rtcp = usable(rtcp_component());
        if (rtp && !ready) report = ready = true;
    }
    if (rtp) rtp_gate->Open();
    if (rtcp) rtcp_gate->Open();
    if (report) {
        Mark("transport ready");
        if (hooks.ready) hooks.ready();
    }
}

std::unique_ptr<LineTransport> LineTransport::Build(GstElement* pipeline, GstElement* rtpbin,
                                                    NiceAgent* agent, const TransportConfig& config,
                                                    const std::shared_ptr<SendGate>& rtp_gate,
                                                    const std::shared_ptr<ArrivalClock>& arrivals,
                                                    TransportHooks hooks) {
    std::unique_ptr<LineTransport> t(new LineTransport());
    t->config_ = config;
    t->shared_ = std::make_shared<Shared>();
    t->shared_->config = config;
    t->shared_->hooks = std::move(hooks);
    t->shared_->rtp_gate = rtp_gate;
    // RTCP before the path is up is dropped, never held: rtpbin's RTCP thread also
    // times out the receive side.
    std::string rtcp_name = "send_rtcp_src_" + std::to_string(config.session);
    PadRef rtcp(gst_element_request_pad_simple(rtpbin, rtcp_name.c_str()));
    if (rtcp) SendGate::Install(rtcp.get(), t->shared_->rtcp_gate);
    guint components = config.rtcp_mux ? 1 : 2;
    for (guint c = 1; c <= components; ++c)
        if (!t->BuildComponent(pipeline, rtpbin, agent, c, arrivals)) return nullptr;
    return t;
}

bool LineTransport::BuildComponent(GstElement* pipeline, GstElement* rtpbin, NiceAgent* agent,
                                   guint component, const std::shared_ptr<ArrivalClock>& arrivals) {
    ElementRef nsrc = MakeElement("nicesrc"), nsink = MakeElement("nicesink");
    if (!nsrc || !nsink) {
        GST_ERROR("nicesrc/nicesink missing (gstreamer1.0-nice)");
        return false;
    }
    g_object_set(nsrc.get(), "agent", agent, "stream", config_.nice_stream, "component", component,
                 nullptr);
    g_object_set(nsink.get(), "agent", agent, "stream", config_.nice_stream, "component", component,
                 "sync", FALSE, "async", FALSE, nullptr);
    // The bin takes its own reference: these are not floating.
    gst_bin_add_many(GST_BIN(pipeline), nsrc.get(), nsink.get(), nullptr);
    PadRef out(gst_element_get_static_pad(nsrc.get(), "src"));
    WatchArrivals(out.get(), arrivals);
    if (config_.heard) WatchHeard(out.get(), config_.heard, component);
    bool linked = shared_->encrypted()
                      ? LinkSrtp(pipeline, rtpbin, agent, component, nsrc.get(), nsink.get())
                      : LinkPlain(pipeline, rtpbin, component, nsrc.get(), nsink.get());
    if (!linked) {
        GST_ERROR("cannot link the transport of line %u", config_.session);
        return false;
    }
    gst_element_sync_state_with_parent(nsink.get());
    gst_element_sync_state_with_parent(nsrc.get());
    return true;
}

bool LineTransport::LinkPlain(GstElement* pipeline, GstElement* rtpbin, guint component,
                              GstElement* nsrc, GstElement* nsink) {
    std::string n = std::to_string(config_.session);
    if (component == 2)
        return LinkPads(rtpbin, ("send_rtcp_src_" + n).c_str(), nsink, "sink") &&
               LinkPads(nsrc, "src", rtpbin, ("recv_rtcp_sink_" + n).c_str());
    bool in = LinkPads(nsrc, "src", rtpbin, ("recv_rtp_sink_" + n).c_str());
    if (!config_.rtcp_mux)
        return in && LinkPads(rtpbin, ("send_rtp_src_" + n).c_str(), nsink, "sink");
    ElementRef funnel = MakeElement("funnel");
    if (!funnel) return false;
    g_object_set(funnel.get(), "forward-sticky-events", FALSE, nullptr);
    gst_bin_add(GST_BIN(pipeline), funnel.get());
    bool ok = in && LinkPads(funnel.get(), "src", nsink, "sink") &&
              LinkPads(rtpbin, ("send_rtcp_src_" + n).c_str(), funnel.get(), "sink_%u");
    // A line we only receive on has no RTP to send.
    PadRef rtp(gst_element_get_static_pad(rtpbin, ("send_rtp_src_" + n).c_str()));
    if (rtp) ok = ok && LinkPads(rtpbin, ("send_rtp_src_" + n).c_str(), funnel.get(), "sink_%u");
    gst_element_sync_state_with_parent(funnel.get());
    return ok;
}

namespace {

std::vector<uint8_t> Base64(const std::string& text) {
    gsize len = 0;
    std::unique_ptr<guchar, GFree> raw(g_base64_decode(text.c_str(), &len));
    return std::vector<uint8_t>(raw.get(), raw.get() + len);
}

}  // namespace

bool LineTransport::LinkSrtp(GstElement* pipeline, GstElement* rtpbin, NiceAgent* agent,
                             guint component, GstElement* nsrc, GstElement* nsink) {
    ElementRef enc = MakeElement("srtpenc"), dec = MakeElement("srtpdec");
    ElementRef funnel = MakeElement("funnel"), spare = MakeElement("fakesink");
    if (!enc || !dec || !funnel || !spare) {
        GST_ERROR("srtpenc/srtpdec missing (gstreamer1.0-plugins-bad)");
        return false;
    }
    g_object_set(funnel.get(), "forward-sticky-events", FALSE, nullptr);
    g_object_set(spare.get(), "sync", FALSE, "async", FALSE, nullptr);
    // srtpenc will not leave NULL without a key, and one that failed to never frees
    // its session. Until the real key is in, the gates keep every packet from it.
    uint8_t placeholder[kSrtpMasterKeyBytes];
    for (uint8_t& b : placeholder) b = static_cast<uint8_t>(g_random_int());
    GstBuffer* key = gst_buffer_new_memdup(placeholder, sizeof placeholder);
    g_object_set(enc.get(), "key", key, nullptr);
    gst_buffer_unref(key);
    gst_bin_add_many(GST_BIN(pipeline), enc.get(), dec.get(), funnel.get(), spare.get(), nullptr);
    std::string n = std::to_string(config_.session);
    bool ok = LinkPads(funnel.get(), "src", nsink, "sink") &&
              LinkPads(nsrc, "src", dec.get(), "rtp_sink");
    // RTP on component 1 (a line we only receive on has none to send); RTCP on its
    // component. srtpdec tells RTCP from RTP itself.
    PadRef rtp(component == 1 ? gst_element_get_static_pad(rtpbin, ("send_rtp_src_" + n).c_str())
                              : nullptr);
    if (rtp)
        ok = ok && LinkPads(rtpbin, ("send_rtp_src_" + n).c_str(), enc.get(), "rtp_sink_0") &&
             LinkPads(enc.get(), "rtp_src_0", funnel.get(), "sink_%u");
    ok = ok &&
         (component == 1 ? LinkPads(dec.get(), "rtp_src", rtpbin, ("recv_rtp_sink_" + n).c_str())
                         : LinkPads(dec.get(), "rtp_src", spare.get(), "sink"));
    if (component == shared_->rtcp_component()) {
        ok = ok && LinkPads(rtpbin, ("send_rtcp_src_" + n).c_str(), enc.get(), "rtcp_sink_0") &&
             LinkPads(enc.get(), "rtcp_src_0", funnel.get(), "sink_%u") &&
             LinkPads(dec.get(), "rtcp_src", rtpbin, ("recv_rtcp_sink_" + n).c_str());
    } else {
        ok = ok && LinkPads(dec.get(), "rtcp_src", spare.get(), "sink");
    }
    if (!ok) return false;

    using KeyContext = std::pair<std::shared_ptr<Shared>, guint>;
    auto free_context = [](gpointer d, GClosure*) { delete static_cast<KeyContext*>(d); };
    auto on_request = +[](GstElement*, guint, gpointer d) -> GstCaps* {
        auto* ctx = static_cast<KeyContext*>(d);
        return ctx->first->RemoteKey(ctx->second);
    };
    g_signal_connect_data(dec.get(), "request-key", G_CALLBACK(on_request),
                          new KeyContext(shared_, component), free_context, GConnectFlags(0));
    PadRef in(gst_element_get_static_pad(nsrc, "src"));
    gst_pad_add_probe(
        in.get(), GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad*, GstPadProbeInfo* info, gpointer d) {
            auto* ctx = static_cast<KeyContext*>(d);
            return ctx->first->Incoming(ctx->second, gst_pad_probe_info_get_buffer(info));
        },
        new KeyContext(shared_, component), [](gpointer d) { delete static_cast<KeyContext*>(d); });
    {
        std::lock_guard<std::mutex> lock(shared_->mutex);
        shared_->enc[component].reset(GST_ELEMENT(gst_object_ref(enc.get())));
    }
    if (shared_->dtls()) {
        DtlsEndpoint::Config dc;
        dc.client = config_.dtls_client;
        dc.remote_fingerprint_hash = config_.remote_fingerprint_hash;
        dc.remote_fingerprint = config_.remote_fingerprint;
        dc.name = config_.connection_id + "-" + std::to_string(component);
        dc.context = IceContext();
        // nicesink's agent is ours too: the endpoint keeps it as long as it may send.
        std::shared_ptr<NiceAgent> held(NICE_AGENT(g_object_ref(agent)), g_object_unref);
        guint stream = config_.nice_stream;
        dc.send = [held, stream, component](const uint8_t* data, size_t size) {
            nice_agent_send(held.get(), stream, component, static_cast<guint>(size),
                            reinterpret_cast<const gchar*>(data));
        };
        std::weak_ptr<Shared> weak = shared_;
        dc.keyed = [weak, component](const SrtpKeys& k) {
            if (auto s = weak.lock()) s->Keyed(component, k);
        };
        dc.failed = [weak](const std::string& why) {
            if (auto s = weak.lock()) s->Fail(why);
        };
        shared_->dtls_endpoint[component] = DtlsEndpoint::Create(std::move(dc));
        if (!shared_->dtls_endpoint[component]) return false;
    } else {
        // Keys from the descriptions: no handshake, the path is secure once ICE is.
        SrtpKeys k;
        k.auth = config_.suite.find("_32") != std::string::npos ? "hmac-sha1-32" : "hmac-sha1-80";
        k.local = Base64(config_.local_key);
        k.remote = Base64(config_.remote_key);
        shared_->Keyed(component, k);
    }
    for (GstElement* e : {spare.get(), dec.get(), enc.get(), funnel.get()})
        gst_element_sync_state_with_parent(e);
    return true;
}

void LineTransport::ComponentReady(guint component) {
    if (component < 1 || component > 2) return;
    {
        std::lock_guard<std::mutex> lock(shared_->mutex);
        if (shared_->ice_ready[component] || shared_->closed) return;
        shared_->ice_ready[component] = true;
    }
    if (component == 1) shared_->Mark("ICE connected");
    // The client starts its handshake once ICE can carry it; a server waits for one.
    if (config_.dtls_client && shared_->dtls_endpoint[component])
        shared_->dtls_endpoint[component]->Start();
    shared_->Update();
}

void LineTransport::Shared::Close() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        closed = true;
        for (SrtpKeys& k : keys) {
            std::fill(k.local.begin(), k.local.end(), 0);
            std::fill(k.remote.begin(), k.remote.end(), 0);
        }
    }
    for (auto& d : dtls_endpoint)
        if (d) d->Close();
    rtp_gate->Discard();
    rtcp_gate->Discard();
}

void LineTransport::Close() {
    shared_->Close();
}

std::function<void()> LineTransport::Closer() const {
    std::shared_ptr<Shared> shared = shared_;
    return [shared] { shared->Close(); };
}

LineTransport::~LineTransport() {
    if (shared_) Close();
}

}  // namespace media
}  // namespace libwebrtc
