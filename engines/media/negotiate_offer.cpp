// Our offers: what the devices' own engine writes (plain RTP/AVPF with ICE), or the
// same with DTLS-SRTP for browsers.
#include "negotiate_internal.h"
#include "sdp_text.h"

namespace libwebrtc {
namespace media {
namespace sdp {
namespace {

constexpr int kH264Pt = 96, kH264RtxPt = 97, kVp8Pt = 98, kVp8RtxPt = 99, kEventPt = 101;
const char* const kH264Fmtp =
    "level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=42e01f";

Codec MakeCodec(int pt, const char* name, int rate, const std::string& fmtp) {
    Codec c;
    c.pt = pt;
    c.name = name;
    c.clock_rate = rate;
    c.fmtp = fmtp;
    return c;
}

std::vector<Codec> AudioCodecs(const Capabilities& caps) {
    std::vector<Codec> codecs;
    for (const std::string& name : caps.audio_preference) {
        Codec c = text::EqualNoCase(name, "PCMA")   ? MakeCodec(8, "PCMA", 8000, "")
                  : text::EqualNoCase(name, "PCMU") ? MakeCodec(0, "PCMU", 8000, "")
                                                    : Codec();
        bool known = c.pt < 0;
        for (const Codec& k : codecs) known = known || k.pt == c.pt;
        if (!known) codecs.push_back(c);
    }
    if (!codecs.empty()) codecs.push_back(MakeCodec(kEventPt, "telephone-event", 8000, "0-15"));
    return codecs;
}

void AddVideo(Codec c, int rtx_pt, const Capabilities& caps, std::vector<Codec>* codecs) {
    for (const Codec& k : *codecs)
        if (k.pt == c.pt) return;
    c.feedback = {"nack", "nack pli", "ccm fir"};
    codecs->push_back(c);
    if (caps.rtx) codecs->push_back(MakeCodec(rtx_pt, "rtx", 90000, "apt=" + std::to_string(c.pt)));
}

std::vector<Codec> VideoCodecs(const Capabilities& caps) {
    std::vector<Codec> codecs;
    for (const std::string& name : caps.video_preference) {
        if (caps.h264 && text::EqualNoCase(name, "H264"))
            AddVideo(MakeCodec(kH264Pt, "H264", 90000, kH264Fmtp), kH264RtxPt, caps, &codecs);
        if (caps.vp8 && text::EqualNoCase(name, "VP8"))
            AddVideo(MakeCodec(kVp8Pt, "VP8", 90000, ""), kVp8RtxPt, caps, &codecs);
    }
    return codecs;
}

Media OfferSection(const std::string& kind, Direction direction, bool dtls, const Local& local,
                   std::vector<Codec> codecs) {
    Media m;
    m.kind = kind;
    m.port = 9;
    m.profile = dtls ? Profile::kDtlsSavpf : Profile::kAvpf;
    m.protocol = ProfileName(m.profile);
    m.address = "0.0.0.0";
    m.direction = direction;
    m.ice_ufrag = local.ice_ufrag;
    m.ice_pwd = local.ice_pwd;
    if (dtls) {
        m.fingerprint_hash = "sha-256";
        m.fingerprint = local.fingerprint;
        m.setup = Setup::kActPass;
    }
    m.rtcp_mux = true;
    m.rtcp_rsize = true;
    m.codecs = std::move(codecs);
    for (const Codec& c : m.codecs) m.formats.push_back(std::to_string(c.pt));
    return m;
}

}  // namespace

Description MakeOffer(const OfferOptions& options, const Local& local, const Capabilities& caps) {
    Description d;
    d.session_id = local.session_id;
    d.session_version = local.session_version;
    const bool dtls = options.dtls || caps.require_encryption;
    std::vector<Codec> audio = AudioCodecs(caps), video = VideoCodecs(caps);
    if (options.audio && !audio.empty()) {
        Media m = OfferSection("audio", options.audio_direction, dtls, local, audio);
        if (detail::Sends(m.direction))
            detail::AddSources(local, local.audio_track_id, local.audio_ssrc, 0, &m);
        d.media.push_back(m);
    }
    if (options.video && !video.empty()) {
        Media m = OfferSection("video", options.video_direction, dtls, local, video);
        if (detail::Sends(m.direction))
            detail::AddSources(local, local.video_track_id, local.video_ssrc,
                               caps.rtx ? local.video_rtx_ssrc : 0, &m);
        d.media.push_back(m);
    }
    for (size_t i = 0; i < d.media.size(); ++i) d.media[i].mid = std::to_string(i);
    return d;
}

Description WithDtls(Description offer, const std::string& fingerprint) {
    for (Media& m : offer.media) {
        if (m.profile == Profile::kAvp) m.profile = Profile::kDtlsSavp;
        if (m.profile == Profile::kAvpf) m.profile = Profile::kDtlsSavpf;
        if (!IsDtls(m.profile)) continue;
        m.protocol = ProfileName(m.profile);
        m.fingerprint_hash = "sha-256";
        m.fingerprint = fingerprint;
        m.setup = Setup::kActPass;
    }
    return offer;
}

Description WithPlainAvp(Description offer) {
    for (Media& m : offer.media) {
        if (m.profile != Profile::kAvpf) continue;
        m.profile = Profile::kAvp;
        m.protocol = ProfileName(m.profile);
    }
    return offer;
}

}  // namespace sdp
}  // namespace media
}  // namespace libwebrtc
