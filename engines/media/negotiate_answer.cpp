// Our answer to a far end's offer: one section per offered one, the first usable audio
// and video taken, everything else answered with port 0 and a reason.
#include "negotiate_internal.h"
#include "sdp_text.h"

namespace libwebrtc {
namespace media {
namespace sdp {
namespace {

using detail::H264Rank;

// The first a=crypto we can key: a suite the SRTP elements know, an inline key
// without MKI, no session parameters. "" when there is none.
std::string PickCrypto(const Media& m) {
    for (const std::string& c : m.crypto) {
        std::vector<std::string> w = text::Words(c, 4);
        uint64_t tag = 0;
        if (w.size() == 3 && text::ToNumber(w[0], 0, 999999999, &tag) &&
            (w[1] == "AES_CM_128_HMAC_SHA1_80" || w[1] == "AES_CM_128_HMAC_SHA1_32") &&
            w[2].compare(0, 7, "inline:") == 0 && w[2].size() > 7 &&
            w[2].find(':', 7) == std::string::npos)
            return c;
    }
    return "";
}

// Why the section's transport cannot be answered, "" when it can.
std::string TransportProblem(const Media& m, const Local& local, const Capabilities& caps) {
    if (detail::IsPlain(m.profile)) {
        if (caps.require_encryption) return "unencrypted media refused";
    } else if (IsDtls(m.profile)) {
        if (m.fingerprint.empty()) return "no DTLS fingerprint";
        if (m.setup == Setup::kHoldConn) return "DTLS setup holdconn";
        if (local.fingerprint.empty()) return "no local DTLS certificate";
    } else if (detail::IsSdes(m.profile)) {
        if (!caps.sdes || local.sdes_key.empty()) return "SDES-SRTP not supported";
        if (PickCrypto(m).empty()) return "no usable SDES crypto suite";
    } else {
        return "unsupported protocol " + m.protocol;
    }
    if (m.ice_ufrag.empty() || m.ice_pwd.empty()) return "no ICE credentials";
    return "";
}

const Codec* ChooseAudio(const Media& m, const Capabilities& caps) {
    for (const std::string& name : caps.audio_preference)
        for (const Codec& c : m.codecs)
            if (c.Is(name.c_str()) && detail::UsableAudio(c, caps)) return &c;
    return nullptr;
}

// The best ranked H264 format, the offer's order within a rank.
const Codec* BestH264(const Media& m) {
    const Codec* best = nullptr;
    for (const Codec& c : m.codecs)
        if (H264Rank(c) >= 0 && (!best || H264Rank(c) < H264Rank(*best))) best = &c;
    return best;
}

// H264 the far end takes only as single NAL units is a last resort: a VP8 it also
// offers is sent instead, whatever the preference.
const Codec* ChooseVideo(const Media& m, const Capabilities& caps) {
    const Codec* single_nal = nullptr;
    for (const std::string& name : caps.video_preference) {
        if (caps.h264 && text::EqualNoCase(name, "H264")) {
            const Codec* h264 = BestH264(m);
            if (h264 && H264Rank(*h264) < 3) return h264;
            if (!single_nal) single_nal = h264;
        }
        if (caps.vp8 && text::EqualNoCase(name, "VP8"))
            for (const Codec& c : m.codecs)
                if (detail::IsVp8(c)) return &c;
    }
    return single_nal;
}

// The offer's packetization mode and profile-level-id for that payload type.
std::string H264AnswerFmtp(const Codec& offered) {
    std::string fmtp;
    auto add = [&fmtp](const std::string& item) { fmtp += (fmtp.empty() ? "" : ";") + item; };
    if (offered.Param("level-asymmetry-allowed") == "1") add("level-asymmetry-allowed=1");
    std::string mode = offered.Param("packetization-mode"),
                plid = offered.Param("profile-level-id");
    if (!mode.empty()) add("packetization-mode=" + mode);
    if (!plid.empty()) add("profile-level-id=" + plid);
    return fmtp;
}

// The chosen codec as we answer it and as we send it.
void AnswerVideoCodec(const Codec& chosen, Codec* ours, Codec* send, StreamPlan* sp) {
    Codec handled;
    handled.feedback = {"nack", "nack pli", "ccm fir"};
    ours->feedback = detail::CommonFeedback(chosen, handled);
    detail::SetFeedback(ours->feedback, sp);
    *send = chosen;
    send->feedback = ours->feedback;
    if (H264Rank(chosen) >= 0) {
        ours->name = "H264";
        ours->fmtp = H264AnswerFmtp(chosen);
        send->fmtp = detail::H264SendFmtp(chosen, chosen.Param("packetization-mode"));
    } else {
        ours->name = "VP8";
        ours->fmtp.clear();  // theirs (max-fs...) stays on what we send
    }
}

std::string AnswerCodecs(const Media& offer, const Capabilities& caps, Media* am, StreamPlan* sp) {
    const bool video = offer.kind == "video";
    const Codec* chosen = video ? ChooseVideo(offer, caps) : ChooseAudio(offer, caps);
    if (!chosen) return video ? "no video codec in common" : "no audio codec in common";
    Codec ours = *chosen, send = *chosen;
    ours.feedback.clear();
    if (video) {
        AnswerVideoCodec(*chosen, &ours, &send, sp);
    } else {
        ours.name = send.name = chosen->Is("PCMA") ? "PCMA" : "PCMU";
        send.feedback.clear();
    }
    am->codecs.push_back(ours);
    const Codec* rtx = video && caps.rtx ? detail::FindRtx(offer, chosen->pt) : nullptr;
    if (rtx) sp->send_rtx_pt = rtx->pt;
    for (const Codec& c : offer.codecs) {
        if (&c != rtx && (video || !detail::IsTelephoneEvent(c))) continue;
        am->codecs.push_back(c);
        am->codecs.back().feedback.clear();
        if (!video) break;  // one telephone-event
    }
    for (const Codec& c : am->codecs) am->formats.push_back(std::to_string(c.pt));
    sp->send_codec = send;
    sp->receive_codecs = am->codecs;
    return "";
}

Direction AnswerDirection(Direction offered, bool have_track) {
    Direction d = Reverse(offered);
    if (have_track) return d;
    if (d == Direction::kSendRecv) return Direction::kRecvOnly;
    if (d == Direction::kSendOnly) return Direction::kInactive;
    return d;
}

// The transport half of an accepted section: ICE, DTLS or SDES, RTCP.
Media AnswerTransport(const Media& offer, const Local& local, StreamPlan* sp) {
    Media am;
    am.kind = offer.kind;
    am.port = 9;
    am.protocol = offer.protocol;
    am.profile = offer.profile;
    am.address = "0.0.0.0";
    am.mid = offer.mid;
    am.ice_ufrag = local.ice_ufrag;
    am.ice_pwd = local.ice_pwd;
    am.rtcp_mux = sp->rtcp_mux = offer.rtcp_mux;
    am.rtcp_rsize = sp->rtcp_rsize = offer.rtcp_rsize;
    if (IsDtls(offer.profile)) {
        am.fingerprint_hash = "sha-256";
        am.fingerprint = local.fingerprint;
        // RFC 4145: no a=setup means the offerer is active.
        bool they_listen = offer.setup == Setup::kActPass || offer.setup == Setup::kPassive;
        am.setup = they_listen ? Setup::kActive : Setup::kPassive;
        sp->dtls_client = they_listen;
    }
    if (detail::IsSdes(offer.profile)) {
        sp->remote_crypto = PickCrypto(offer);
        std::vector<std::string> w = text::Words(sp->remote_crypto, 2);
        sp->local_crypto = w[0] + " " + w[1] + " inline:" + local.sdes_key;
        am.crypto.push_back(sp->local_crypto);
    }
    detail::TakeRemote(offer, offer.rtcp_mux, sp);
    return am;
}

std::string AcceptSection(const Media& offer, const Local& local, const Capabilities& caps,
                          bool send, Media* am, StreamPlan* sp) {
    std::string problem = TransportProblem(offer, local, caps);
    if (!problem.empty()) return problem;
    *am = AnswerTransport(offer, local, sp);
    problem = AnswerCodecs(offer, caps, am, sp);
    if (!problem.empty()) return problem;
    am->direction = AnswerDirection(offer.direction, send);
    sp->send = detail::Sends(am->direction);
    sp->receive = detail::Receives(am->direction);
    if (sp->send && offer.kind == "audio")
        detail::AddSources(local, local.audio_track_id, local.audio_ssrc, 0, am);
    if (sp->send && offer.kind == "video")
        detail::AddSources(local, local.video_track_id, local.video_ssrc,
                           sp->send_rtx_pt >= 0 ? local.video_rtx_ssrc : 0, am);
    sp->active = true;
    return "";
}

// Why a section is not even looked at; "" when it is.
std::string Skipped(const Media& m, bool kind_taken) {
    if (m.kind != "audio" && m.kind != "video") return m.kind + " not supported";
    if (m.port == 0) return m.bundle_only ? "bundle-only in the offer" : "port 0 in the offer";
    if (kind_taken) return "extra " + m.kind + " section";
    return "";
}

void Reject(const Media& offer, const std::string& why, Media* am, StreamPlan* sp) {
    *am = Media();
    am->kind = offer.kind;
    am->protocol = offer.protocol;
    am->profile = offer.profile;
    am->formats = offer.formats;
    am->address = "0.0.0.0";
    am->mid = offer.mid;
    StreamPlan rejected;
    rejected.index = sp->index;
    rejected.kind = sp->kind;
    rejected.mid = sp->mid;
    rejected.profile = sp->profile;
    rejected.why_inactive = text::Reason(why);
    *sp = rejected;
}

// The whole offer's reason: the first section's, both codec reasons as one.
std::string OfferWhy(const std::vector<std::string>& reasons) {
    if (reasons.empty()) return "no audio or video section";
    bool audio = false, video = false;
    for (const std::string& r : reasons) {
        audio = audio || r == "no audio codec in common";
        video = video || r == "no video codec in common";
    }
    return audio && video ? "no audio or video codec in common" : reasons.front();
}

}  // namespace

bool AnswerOffer(const Description& offer, const Local& local, const Capabilities& caps,
                 bool send_audio, bool send_video, Description* answer, CallPlan* plan,
                 std::string* why) {
    *answer = Description();
    *plan = CallPlan();
    answer->session_id = local.session_id;
    answer->session_version = local.session_version;
    bool taken[2] = {false, false};  // audio, video
    std::vector<std::string> reasons;
    for (size_t i = 0; i < offer.media.size(); ++i) {
        const Media& m = offer.media[i];
        const bool video = m.kind == "video";
        Media am;
        StreamPlan sp;
        sp.index = i;
        sp.kind = m.kind;
        sp.mid = m.mid;
        sp.profile = m.profile;
        std::string problem = Skipped(m, taken[video]);
        const bool looked_at = problem.empty();
        if (looked_at)
            problem = AcceptSection(m, local, caps, video ? send_video : send_audio, &am, &sp);
        if (problem.empty()) {
            taken[video] = true;
            plan->ice_controlling = plan->ice_controlling || sp.remote_ice_lite;
        } else {
            Reject(m, problem, &am, &sp);
            if (looked_at) reasons.push_back(problem);
        }
        answer->media.push_back(std::move(am));
        plan->streams.push_back(std::move(sp));
    }
    if (plan->AnyActive()) return true;
    if (why) *why = text::Reason(OfferWhy(reasons));
    return false;
}

}  // namespace sdp
}  // namespace media
}  // namespace libwebrtc
