// Codec rules shared by offers and answers, and the quick checks the engines ask.
#include <cstdio>
#include <cstdlib>

#include "negotiate_internal.h"
#include "sdp_text.h"

namespace libwebrtc {
namespace media {
namespace sdp {
namespace detail {

bool IsPlain(Profile p) {
    return p == Profile::kAvp || p == Profile::kAvpf;
}
bool IsSdes(Profile p) {
    return p == Profile::kSavp || p == Profile::kSavpf;
}
bool Sends(Direction d) {
    return d == Direction::kSendRecv || d == Direction::kSendOnly;
}
bool Receives(Direction d) {
    return d == Direction::kSendRecv || d == Direction::kRecvOnly;
}

bool UsableAudio(const Codec& c, const Capabilities& caps) {
    if (c.clock_rate != 8000 || c.channels > 1 || !(c.Is("PCMA") || c.Is("PCMU"))) return false;
    for (const std::string& name : caps.audio_preference)
        if (c.Is(name.c_str())) return true;
    return false;
}

bool IsTelephoneEvent(const Codec& c) {
    return c.Is("telephone-event") && c.clock_rate == 8000;
}

namespace {

// profile_idc, profile-iop and level_idc of a profile-level-id; false when malformed.
bool ProfileLevel(const std::string& plid, unsigned* profile, unsigned* iop, unsigned* level) {
    if (plid.size() != 6 || plid.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return false;
    unsigned long v = std::strtoul(plid.c_str(), nullptr, 16);
    *profile = (v >> 16) & 0xff;
    *iop = (v >> 8) & 0xff;
    *level = v & 0xff;
    return true;
}

}  // namespace

int H264Rank(const Codec& c) {
    if (!c.Is("H264") || c.clock_rate != 90000) return -1;
    std::string mode = c.Param("packetization-mode");
    if (mode != "" && mode != "0" && mode != "1") return -1;
    int rank = mode == "1" ? 0 : 3;
    std::string plid = c.Param("profile-level-id");
    if (plid.empty()) return rank + 2;  // RFC 6184's default: baseline at level 1.0
    unsigned profile, iop, level;
    if (!ProfileLevel(plid, &profile, &iop, &level)) return -1;
    // Constrained baseline, as 42 flags it (constraint_set1) and as 4d does (set0).
    if ((profile == 0x42 && (iop & 0x40)) || (profile == 0x4d && (iop & 0x80))) return rank;
    return rank + (profile == 0x42 ? 1 : 2);
}

bool IsVp8(const Codec& c) {
    return c.Is("VP8") && c.clock_rate == 90000;
}

bool UsableVideo(const Codec& c, const Capabilities& caps) {
    return (caps.h264 && H264Rank(c) >= 0) || (caps.vp8 && IsVp8(c));
}

std::string H264SendFmtp(const Codec& theirs, const std::string& mode) {
    unsigned our_level = 0x1f, profile, iop, level;
    if (ProfileLevel(theirs.Param("profile-level-id"), &profile, &iop, &level) && level > 0 &&
        level < our_level)
        our_level = level;
    char plid[7];
    std::snprintf(plid, sizeof plid, "42e0%02x", our_level);
    return "packetization-mode=" + (mode.empty() ? std::string("0") : mode) +
           ";profile-level-id=" + plid;
}

const Codec* FindRtx(const Media& m, int pt) {
    for (const Codec& c : m.codecs)
        if (c.Is("rtx") && c.Param("apt") == std::to_string(pt)) return &c;
    return nullptr;
}

std::vector<std::string> CommonFeedback(const Codec& a, const Codec& b) {
    std::vector<std::string> out;
    for (const char* fb : {"nack", "nack pli", "ccm fir"})
        if (a.HasFeedback(fb) && b.HasFeedback(fb)) out.push_back(fb);
    return out;
}

void SetFeedback(const std::vector<std::string>& feedback, StreamPlan* sp) {
    for (const std::string& fb : feedback) {
        sp->nack = sp->nack || fb == "nack";
        sp->pli = sp->pli || fb == "nack pli";
        sp->fir = sp->fir || fb == "ccm fir";
    }
}

void AddSources(const Local& local, const std::string& track, uint32_t ssrc, uint32_t rtx_ssrc,
                Media* m) {
    if (track.empty() || ssrc == 0) return;
    m->msid_stream = local.stream_id;
    m->msid_track = track;
    for (uint32_t s : {ssrc, rtx_ssrc}) {
        if (s == 0) continue;
        Source source;
        source.ssrc = s;
        source.cname = local.cname;
        source.msid_stream = source.mslabel = local.stream_id;
        source.msid_track = source.label = track;
        m->sources.push_back(source);
    }
    if (rtx_ssrc != 0) m->fid_groups.push_back({ssrc, rtx_ssrc});
}

namespace {

void RemoteNames(const Media& remote, StreamPlan* sp) {
    sp->remote_stream_id = remote.msid_stream;
    sp->remote_track_id = remote.msid_track;
    for (const Source& s : remote.sources) {
        if (!sp->remote_stream_id.empty()) return;
        sp->remote_stream_id = s.msid_stream;
        sp->remote_track_id = s.msid_track;
    }
    for (const Source& s : remote.sources) {
        if (!sp->remote_stream_id.empty()) return;
        sp->remote_stream_id = s.mslabel;
        sp->remote_track_id = s.label;
    }
}

}  // namespace

void TakeRemote(const Media& remote, bool rtcp_mux, StreamPlan* sp) {
    sp->remote_ufrag = remote.ice_ufrag;
    sp->remote_pwd = remote.ice_pwd;
    sp->remote_ice_lite = remote.ice_lite;
    for (const Candidate& c : remote.candidates) {
        // mDNS names and other host names are never resolved here.
        if (c.transport == "udp" && c.port > 0 && (c.component == 1 || !rtcp_mux) &&
            c.component <= 2 && text::IsAddressLiteral(c.address))
            sp->remote_candidates.push_back(c);
    }
    if (IsDtls(remote.profile)) {
        sp->remote_fingerprint_hash = remote.fingerprint_hash;
        sp->remote_fingerprint = remote.fingerprint;
    }
    sp->remote_sources = remote.sources;
    RemoteNames(remote, sp);
}

}  // namespace detail

bool CallPlan::AnyActive() const {
    for (const StreamPlan& s : streams)
        if (s.active) return true;
    return false;
}

std::string Unusable(const std::string& offer_text, const Capabilities& caps) {
    Description offer, answer;
    CallPlan plan;
    std::string why;
    if (!Parse(offer_text, &offer, &why)) return text::Reason(why);
    Local local;  // stand-ins: only the far end's side is judged here
    local.ice_ufrag = "check";
    local.ice_pwd = "checkcheckcheckcheckcheck";
    local.fingerprint = "00:00";
    if (AnswerOffer(offer, local, caps, true, true, &answer, &plan, &why)) return "";
    return why;
}

std::string UnusableAnswer(const std::string& our_offer_text, const std::string& answer_text,
                           const Capabilities& caps) {
    Description offer, answer;
    CallPlan plan;
    std::string why;
    if (!Parse(our_offer_text, &offer, &why)) return text::Reason("our offer: " + why);
    if (!Parse(answer_text, &answer, &why)) return text::Reason(why);
    if (ApplyAnswer(offer, answer, caps, &plan, &why)) return "";
    return why;
}

std::vector<std::string> IceUfrags(const std::string& text) {
    std::vector<std::string> ufrags;
    const std::string key = "a=ice-ufrag:";
    for (size_t pos = 0; pos < text.size() && ufrags.size() < 16;) {
        size_t end = text.find_first_of("\r\n", pos);
        if (end == std::string::npos) end = text.size();
        size_t begin = text.find_first_not_of(" \t", pos);
        if (begin < end && text.compare(begin, key.size(), key) == 0) {
            std::string value =
                text::Trim(text.substr(begin + key.size(), end - begin - key.size()));
            bool known = value.empty();
            for (const std::string& u : ufrags) known = known || u == value;
            if (!known) ufrags.push_back(value);
        }
        pos = end + 1;
    }
    return ufrags;
}

bool SendsMedia(const std::string& text) {
    Description d;
    if (!Parse(text, &d, nullptr)) return false;
    for (const Media& m : d.media)
        if ((m.kind == "audio" || m.kind == "video") && m.port != 0 &&
            m.profile != Profile::kUnknown && detail::Sends(m.direction))
            return true;
    return false;
}

}  // namespace sdp
}  // namespace media
}  // namespace libwebrtc
