// The path of one m-line between rtpbin and the network: nicesrc/nicesink for each
// ICE component, SRTP keyed by DTLS (dtls.h) or by the descriptions when the line
// is encrypted, RTCP on the RTP component (rtcp-mux) or on its own.
#ifndef ZARNRTC_MEDIA_TRANSPORT_H
#define ZARNRTC_MEDIA_TRANSPORT_H

#include <gst/gst.h>
#include <nice/agent.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "gst_util.h"
#include "ice_nudge.h"
#include "send_gate.h"
#include "sdp_model.h"

namespace libwebrtc {
namespace media {

// When anything last arrived from the far end. Shared with the pad probes, which
// may outlive the call.
struct ArrivalClock {
    void Touch() { last_us.store(g_get_monotonic_time(), std::memory_order_relaxed); }
    std::atomic<gint64> last_us{0};
};

struct TransportConfig {
    guint session = 0;      // rtpbin session (the m-line index)
    guint nice_stream = 0;  // the line's ICE stream
    bool rtcp_mux = true;   // else RTCP on component 2
    sdp::Profile profile = sdp::Profile::kAvpf;
    // DTLS: our role and the far end's certificate fingerprint.
    bool dtls_client = false;
    std::string remote_fingerprint_hash, remote_fingerprint;
    // SRTP keyed in the descriptions (a=crypto): base64 master keys and the suite.
    std::string local_key, remote_key, suite;
    std::string connection_id;  // unique in the process: names the DTLS endpoints
    unsigned long timeline_id = 0;
    std::shared_ptr<FarEndHeard> heard;  // told when the far end is first heard
};

struct TransportHooks {
    // The path carries media: ICE connected, and for DTLS the keys are set and the
    // far end's certificate matches its fingerprint. Any thread; called once.
    std::function<void()> ready;
    // The path can never carry media (e.g. a certificate that does not match).
    std::function<void(const std::string& why)> failed;
};

class LineTransport {
  public:
    // Adds the elements to `pipeline`, links them to rtpbin's pads of the session
    // and starts them; null (nothing left behind) when an element is missing.
    static std::unique_ptr<LineTransport> Build(GstElement* pipeline, GstElement* rtpbin,
                                                NiceAgent* agent, const TransportConfig& config,
                                                const std::shared_ptr<SendGate>& rtp_gate,
                                                const std::shared_ptr<ArrivalClock>& arrivals,
                                                TransportHooks hooks);
    ~LineTransport();
    // ICE reports a component connected (any thread).
    void ComponentReady(guint component);
    // Releases whatever waits; the elements go with the pipeline.
    void Close();
    // The same, callable from any thread after this object is gone.
    std::function<void()> Closer() const;

  private:
    struct Shared;
    LineTransport() = default;
    bool BuildComponent(GstElement* pipeline, GstElement* rtpbin, NiceAgent* agent, guint component,
                        const std::shared_ptr<ArrivalClock>& arrivals);
    bool LinkPlain(GstElement* pipeline, GstElement* rtpbin, guint component, GstElement* nsrc,
                   GstElement* nsink);
    bool LinkSrtp(GstElement* pipeline, GstElement* rtpbin, NiceAgent* agent, guint component,
                  GstElement* nsrc, GstElement* nsink);

    TransportConfig config_;
    std::shared_ptr<Shared> shared_;
};

}  // namespace media
}  // namespace libwebrtc

#endif
