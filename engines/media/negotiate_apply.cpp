// What a far end's answer to our offer leaves: a plan per offered section, or a
// refusal when the answer breaks the offer.
#include "negotiate_internal.h"
#include "sdp_text.h"

namespace libwebrtc {
namespace media {
namespace sdp {
namespace {

// Why the answer breaks the offer in this section (the whole answer is then refused);
// "" when it does not.
std::string Breaks(const Media& offer, const Media& answer, const Capabilities& caps) {
    if (offer.port == 0 || answer.port == 0) return "";
    const Profile o = offer.profile, a = answer.profile;
    if (IsDtls(o) && !IsDtls(a)) return "answer downgrades to unencrypted media";
    // Plain RTP with or without feedback is one family; DTLS answers the variant
    // sent again after a refusal.
    bool same = o == a || (detail::IsPlain(o) && (detail::IsPlain(a) || IsDtls(a))) ||
                (IsDtls(o) && IsDtls(a));
    if (!same) return "answer uses a profile that was not offered";
    if (caps.require_encryption && detail::IsPlain(a)) return "unencrypted media refused";
    for (const Codec& c : answer.codecs)
        if (!offer.Find(c.pt))
            return "answer uses payload type " + std::to_string(c.pt) + " that was not offered";
    return "";
}

bool Supported(const Media& offer, const Codec& c, const Capabilities& caps) {
    return offer.kind == "video" ? detail::UsableVideo(c, caps) : detail::UsableAudio(c, caps);
}

// An answer's format as it stands, or as we offered it when the answer only lists
// its payload type.
Codec Answered(const Codec& answered, const Codec& offered) {
    Codec c = answered;
    if (c.name.empty()) {
        c.name = offered.name;
        c.clock_rate = offered.clock_rate;
        c.channels = offered.channels;
    }
    return c;
}

// What we send: the answer's first codec we support, under its payload type.
std::string SendCodec(const Media& offer, const Media& answer, const Capabilities& caps,
                      StreamPlan* sp) {
    const Codec* offered = nullptr;
    Codec send;
    for (const Codec& c : answer.codecs) {
        offered = offer.Find(c.pt);  // never null: Breaks() checked every type
        send = Answered(c, *offered);
        if (Supported(offer, send, caps)) break;
        offered = nullptr;
    }
    if (!offered)
        return offer.kind == "video" ? "no video codec in common" : "no audio codec in common";
    sp->send_codec = send;
    sp->send_codec.feedback.clear();
    if (offer.kind != "video") return "";
    sp->send_codec.feedback = detail::CommonFeedback(*offered, send);
    detail::SetFeedback(sp->send_codec.feedback, sp);
    if (detail::H264Rank(send) >= 0) {
        // The payload type binds the mode: an answer that leaves it out keeps ours.
        std::string mode = send.Param("packetization-mode");
        if (mode.empty()) mode = offered->Param("packetization-mode");
        sp->send_codec.fmtp = detail::H264SendFmtp(send, mode);
    }
    const Codec* rtx = caps.rtx ? detail::FindRtx(answer, send.pt) : nullptr;
    if (rtx) sp->send_rtx_pt = rtx->pt;
    return "";
}

// What we may receive: every format we offered. An answerer may send any of them,
// not only those its answer lists (a browser whose answer keeps VP8 still sends the
// H264 our offer put first).
void ReceiveCodecs(const Media& offer, const Media&, const Capabilities& caps, StreamPlan* sp) {
    for (const Codec& c : offer.codecs)
        if (caps.rtx || !c.Is("rtx")) sp->receive_codecs.push_back(c);
}

void Security(const Media& answer, StreamPlan* sp) {
    if (!IsDtls(answer.profile)) return;
    // Their role decides ours; none named means they are active, and an answer that
    // repeats actpass leaves the handshake to us.
    sp->dtls_client = answer.setup == Setup::kPassive || answer.setup == Setup::kActPass;
}

std::string ApplySection(const Media& offer, const Media* answer, const Capabilities& caps,
                         StreamPlan* sp) {
    if (!answer) return "no answer section";
    if (offer.port == 0) return "port 0 in the offer";
    if (answer->port == 0) return "port 0 in the answer";
    if (offer.kind != "audio" && offer.kind != "video") return offer.kind + " not supported";
    if (answer->kind != offer.kind) return "answer changes the media kind";
    if (answer->ice_ufrag.empty() || answer->ice_pwd.empty()) return "no ICE credentials";
    if (IsDtls(answer->profile) && answer->fingerprint.empty()) return "no DTLS fingerprint";
    std::string problem = SendCodec(offer, *answer, caps, sp);
    if (!problem.empty()) return problem;
    ReceiveCodecs(offer, *answer, caps, sp);
    sp->profile = answer->profile;
    sp->send = detail::Sends(offer.direction) && detail::Receives(answer->direction);
    sp->receive = detail::Receives(offer.direction) && detail::Sends(answer->direction);
    sp->rtcp_mux = offer.rtcp_mux && answer->rtcp_mux;
    sp->rtcp_rsize = offer.rtcp_rsize && answer->rtcp_rsize;
    Security(*answer, sp);
    detail::TakeRemote(*answer, sp->rtcp_mux, sp);
    sp->active = true;
    return "";
}

}  // namespace

bool ApplyAnswer(const Description& offer, const Description& answer, const Capabilities& caps,
                 CallPlan* plan, std::string* why) {
    *plan = CallPlan();
    plan->ice_controlling = true;  // the offerer nominates, and a lite answerer never does
    if (answer.media.empty()) {
        if (why) *why = "no media in the answer";
        return false;
    }
    std::string first_why;
    for (size_t i = 0; i < offer.media.size(); ++i) {
        const Media& o = offer.media[i];
        const Media* a = i < answer.media.size() ? &answer.media[i] : nullptr;
        std::string broken = a ? Breaks(o, *a, caps) : "";
        if (!broken.empty()) {
            if (why) *why = text::Reason(broken);
            return false;
        }
        StreamPlan sp;
        sp.index = i;
        sp.kind = o.kind;
        sp.mid = o.mid;
        sp.profile = o.profile;
        std::string problem = ApplySection(o, a, caps, &sp);
        if (!problem.empty()) {
            StreamPlan inactive;
            inactive.index = i;
            inactive.kind = o.kind;
            inactive.mid = o.mid;
            inactive.profile = a ? a->profile : o.profile;
            inactive.why_inactive = text::Reason(problem);
            sp = inactive;
            if (first_why.empty() && o.port != 0) first_why = problem;
        }
        plan->streams.push_back(std::move(sp));
    }
    if (plan->AnyActive()) return true;
    if (why) *why = text::Reason(first_why.empty() ? "no audio or video in the answer" : first_why);
    return false;
}

}  // namespace sdp
}  // namespace media
}  // namespace libwebrtc
