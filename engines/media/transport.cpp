// One m-line's transport: ICE components, DTLS-SRTP or plain RTP, RTCP muxed or not.
//
//  plain, rtcp-mux:  send_rtp_src ─┬ funnel ─ nicesink(1)     nicesrc(1) ─ recv_rtp_sink
//                    send_rtcp_src ┘                          (rtpsession takes the
//                                                              muxed RTCP off the RTP pad)
//  plain, no mux:    send_rtp_src ─ nicesink(1)               nicesrc(1) ─ recv_rtp_sink
//                    send_rtcp_src ─ nicesink(2)              nicesrc(2) ─ recv_rtcp_sink
//  DTLS/SRTP:        the same, with dtlssrtpenc before each nicesink and dtlssrtpdec
//                    after each nicesrc (one DTLS association per component).
#include "transport.h"

#include <gst/video/video.h>

#include <vector>

#include "engine_link.h"
#include "media_internal.h"

namespace libwebrtc {
namespace media {

namespace {

constexpr gint64 kStaleUs = 300 * 1000;  // a held picture older than this is not sent

std::string Hex(const guint8* data, gsize len) {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (gsize i = 0; i < len; ++i) {
        if (i) out += ':';
        out += kDigits[data[i] >> 4];
        out += kDigits[data[i] & 15];
    }
    return out;
}

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
// SendGate

void SendGate::Install(GstPad* pad, const std::shared_ptr<SendGate>& gate) {
    gst_pad_add_probe(
        pad,
        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST),
        [](GstPad* p, GstPadProbeInfo* info, gpointer d) {
            return static_cast<std::shared_ptr<SendGate>*>(d)->get()->Pass(p, info);
        },
        new std::shared_ptr<SendGate>(gate),
        [](gpointer d) { delete static_cast<std::shared_ptr<SendGate>*>(d); });
}

// On the branch's streaming thread: waits while closed.
GstPadProbeReturn SendGate::Pass(GstPad* pad, GstPadProbeInfo*) {
    if (state_ == kOpen) return GST_PAD_PROBE_OK;
    if (state_ == kDiscard) return GST_PAD_PROBE_DROP;
    gint64 since = g_get_monotonic_time();
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait(lock, [&] { return state_ != kClosed; });
    if (state_ == kDiscard) return GST_PAD_PROBE_DROP;
    if (g_get_monotonic_time() - since < kStaleUs) return GST_PAD_PROBE_OK;
    // Too old to show: the encoder makes a fresh key frame for the next picture.
    if (video_ && !ask_key_frame_) {
        ask_key_frame_ = true;
        lock.unlock();
        gst_pad_push_event(
            pad, gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
    }
    return GST_PAD_PROBE_DROP;
}

void SendGate::Open() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (state_ == kClosed) state_ = kOpen;
    }
    cv_.notify_all();
}

void SendGate::Discard() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        state_ = kDiscard;
    }
    cv_.notify_all();
}

// ---------------------------------------------------------------------------
// Certificates

std::string FingerprintOf(const std::string& pem, const std::string& hash) {
    GChecksumType type;
    if (hash == "sha-256")
        type = G_CHECKSUM_SHA256;
    else if (hash == "sha-1")
        type = G_CHECKSUM_SHA1;
    else if (hash == "sha-384")
        type = G_CHECKSUM_SHA384;
    else if (hash == "sha-512")
        type = G_CHECKSUM_SHA512;
    else
        return "";
    const std::string begin = "-----BEGIN CERTIFICATE-----", end = "-----END CERTIFICATE-----";
    size_t a = pem.find(begin);
    size_t b = a == std::string::npos ? a : pem.find(end, a);
    if (b == std::string::npos) return "";
    std::string body = pem.substr(a + begin.size(), b - a - begin.size());
    gsize len = 0;
    std::unique_ptr<guchar, GFree> der(g_base64_decode(body.c_str(), &len));
    if (!der || len == 0) return "";
    GChecksum* sum = g_checksum_new(type);
    g_checksum_update(sum, der.get(), len);
    guint8 digest[64];
    gsize digest_len = sizeof(digest);
    g_checksum_get_digest(sum, digest, &digest_len);
    g_checksum_free(sum);
    return Hex(digest, digest_len);
}

const std::string& LocalFingerprint() {
    static const std::string fingerprint = [] {
        // Every DTLS element of the process uses the one certificate made for the first.
        ElementRef dec = MakeElement("dtlsdec");
        gchar* pem = nullptr;
        if (dec) g_object_get(dec.get(), "pem", &pem, nullptr);
        GCharRef owned(pem);
        std::string fp = pem ? FingerprintOf(pem, "sha-256") : "";
        if (fp.empty()) GST_ERROR("no DTLS certificate: DTLS-SRTP calls will fail");
        return fp;
    }();
    return fingerprint;
}

// ---------------------------------------------------------------------------
// LineTransport

struct LineTransport::Shared {
    TransportConfig config;
    TransportHooks hooks;
    std::shared_ptr<SendGate> rtp_gate;
    std::shared_ptr<SendGate> rtcp_gate = std::make_shared<SendGate>(false);
    std::mutex mutex;
    ElementRef enc[3], dec[3];  // per component; set when encrypted
    bool ice_ready[3] = {false, false, false};
    bool secured[3] = {false, false, false};  // keys set, certificate checked
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
    void KeySet(guint component);
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

// DTLS keys are in: the far end must hold the certificate its description named.
void LineTransport::Shared::KeySet(guint component) {
    std::string pem;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (component > 2 || !dec[component] || closed) return;
        gchar* raw = nullptr;
        g_object_get(dec[component].get(), "peer-pem", &raw, nullptr);
        GCharRef owned(raw);
        pem = raw ? raw : "";
    }
    std::string seen = FingerprintOf(pem, config.remote_fingerprint_hash);
    if (seen.empty() || g_ascii_strcasecmp(seen.c_str(), config.remote_fingerprint.c_str()) != 0)
        return Fail("DTLS certificate does not match the fingerprint");
    Mark("DTLS keys set");
    {
        std::lock_guard<std::mutex> lock(mutex);
        secured[component] = true;
    }
    Update();
}

// Opens what can be opened; reports ready once, when RTP can flow.
void LineTransport::Shared::Update() {
    bool rtp = false, rtcp = false, report = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (failed || closed) return;
        auto usable = [&](guint c) { return ice_ready[c] && (!dtls() || secured[c]); };
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
    bool linked = shared_->encrypted()
                      ? LinkSrtp(pipeline, rtpbin, component, nsrc.get(), nsink.get())
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

bool LineTransport::LinkSrtp(GstElement* pipeline, GstElement* rtpbin, guint component,
                             GstElement* nsrc, GstElement* nsink) {
    ElementRef enc = MakeElement("dtlssrtpenc"), dec = MakeElement("dtlssrtpdec");
    ElementRef spare = MakeElement("fakesink");
    if (!enc || !dec || !spare) {
        GST_ERROR("dtlssrtpenc/dtlssrtpdec missing (gstreamer1.0-plugins-bad)");
        return false;
    }
    std::string id = config_.connection_id + "-" + std::to_string(component);
    g_object_set(enc.get(), "connection-id", id.c_str(), "is-client", config_.dtls_client, nullptr);
    g_object_set(dec.get(), "connection-id", id.c_str(), nullptr);
    g_object_set(spare.get(), "sync", FALSE, "async", FALSE, nullptr);
    bool dtls = shared_->dtls();
    if (!dtls) {
        // Keys from the descriptions: no handshake, the path is secure once ICE is.
        std::string suite = config_.suite;
        const char* auth = suite.find("_32") != std::string::npos ? "hmac-sha1-32" : "hmac-sha1-80";
        for (auto pair : {std::make_pair(enc.get(), config_.local_key),
                          std::make_pair(dec.get(), config_.remote_key)}) {
            gsize len = 0;
            std::unique_ptr<guchar, GFree> raw(g_base64_decode(pair.second.c_str(), &len));
            GstBuffer* key = gst_buffer_new_memdup(raw.get(), len);
            g_object_set(pair.first, "key", key, "srtp-cipher", "aes-128-icm", "srtp-auth", auth,
                         "srtcp-cipher", "aes-128-icm", "srtcp-auth", auth, nullptr);
            gst_buffer_unref(key);
        }
    }
    gst_bin_add_many(GST_BIN(pipeline), enc.get(), dec.get(), spare.get(), nullptr);
    std::string n = std::to_string(config_.session);
    bool ok = LinkPads(enc.get(), "src", nsink, "sink") && LinkPads(nsrc, "src", dec.get(), "sink");
    if (component == 1) {
        PadRef rtp(gst_element_get_static_pad(rtpbin, ("send_rtp_src_" + n).c_str()));
        if (rtp)
            ok = ok && LinkPads(rtpbin, ("send_rtp_src_" + n).c_str(), enc.get(), "rtp_sink_0");
        ok = ok && LinkPads(dec.get(), "rtp_src", rtpbin, ("recv_rtp_sink_" + n).c_str());
    } else {
        ok = ok && LinkPads(dec.get(), "rtp_src", spare.get(), "sink");
    }
    if (component == shared_->rtcp_component()) {
        ok = ok && LinkPads(rtpbin, ("send_rtcp_src_" + n).c_str(), enc.get(), "rtcp_sink_0") &&
             LinkPads(dec.get(), "rtcp_src", rtpbin, ("recv_rtcp_sink_" + n).c_str());
    } else {
        ok = ok && LinkPads(dec.get(), "rtcp_src", spare.get(), "sink");
    }
    if (!ok) return false;
    if (dtls) {
        using KeyContext = std::pair<std::weak_ptr<Shared>, guint>;
        auto on_key = +[](GstElement*, gpointer d) {
            auto* ctx = static_cast<KeyContext*>(d);
            if (auto s = ctx->first.lock()) s->KeySet(ctx->second);
        };
        g_signal_connect_data(
            enc.get(), "on-key-set", G_CALLBACK(on_key), new KeyContext(shared_, component),
            [](gpointer d, GClosure*) { delete static_cast<KeyContext*>(d); }, GConnectFlags(0));
    }
    {
        std::lock_guard<std::mutex> lock(shared_->mutex);
        shared_->enc[component].reset(GST_ELEMENT(gst_object_ref(enc.get())));
        shared_->dec[component].reset(GST_ELEMENT(gst_object_ref(dec.get())));
        if (!dtls) shared_->secured[component] = true;
    }
    // The client starts its handshake once ICE can carry it; a server waits for one.
    if (dtls && config_.dtls_client) gst_element_set_locked_state(enc.get(), TRUE);
    gst_element_sync_state_with_parent(spare.get());
    gst_element_sync_state_with_parent(dec.get());
    if (!(dtls && config_.dtls_client)) gst_element_sync_state_with_parent(enc.get());
    return true;
}

void LineTransport::ComponentReady(guint component) {
    if (component < 1 || component > 2) return;
    ElementRef start;
    {
        std::lock_guard<std::mutex> lock(shared_->mutex);
        if (shared_->ice_ready[component] || shared_->closed) return;
        shared_->ice_ready[component] = true;
        if (shared_->dtls() && config_.dtls_client && shared_->enc[component])
            start.reset(GST_ELEMENT(gst_object_ref(shared_->enc[component].get())));
    }
    if (component == 1) shared_->Mark("ICE connected");
    if (start) {
        gst_element_set_locked_state(start.get(), FALSE);
        gst_element_sync_state_with_parent(start.get());
    }
    shared_->Update();
}

void LineTransport::Shared::Close() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        closed = true;
        // A locked encoder must follow the pipeline down.
        for (auto& e : enc)
            if (e) gst_element_set_locked_state(e.get(), FALSE);
    }
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
