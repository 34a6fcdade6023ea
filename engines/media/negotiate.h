// Offer/answer as values: what we offer, how we answer a far end's offer, and what a
// far end's answer to our offer leaves us with. Pure functions over sdp_model.h, no
// GStreamer: the media engine builds its transport from the CallPlan, and the SIP
// engine asks Unusable() before it rings.
#ifndef ZARNRTC_MEDIA_NEGOTIATE_H
#define ZARNRTC_MEDIA_NEGOTIATE_H

#include <string>
#include <vector>

#include "sdp_model.h"

namespace libwebrtc {
namespace media {
namespace sdp {

// What this engine can do. The defaults are the host engine's.
struct Capabilities {
    bool h264 = true;  // sent as constrained baseline, packetization-mode 1
    bool vp8 = true;
    // Video sent: the first of these the far end takes.
    std::vector<std::string> video_preference{"H264", "VP8"};
    // Audio sent and received: the first of these the far end takes.
    std::vector<std::string> audio_preference{"PCMA", "PCMU"};
    bool rtx = true;                  // retransmission (RFC 4588) offered and accepted
    bool require_encryption = false;  // plain RTP offers and answers refused
    bool sdes = false;                // RTP/SAVP(F) with a=crypto accepted
};

// This end's identity in a description.
struct Local {
    std::string ice_ufrag, ice_pwd;
    std::string fingerprint;  // sha-256, "AB:CD:..."; needed for DTLS
    std::string cname;
    std::string stream_id;                       // msid stream
    std::string audio_track_id, video_track_id;  // msid tracks; "" when we send none
    uint32_t audio_ssrc = 0, video_ssrc = 0, video_rtx_ssrc = 0;
    std::string session_id, session_version;  // o= line
    // SDES (caps.sdes): base64 of the 30-byte key and salt we send with, for
    // AES_CM_128_HMAC_SHA1_80/_32; "" refuses SDES offers.
    std::string sdes_key;
};

// One m-line of a call as both ends agreed it.
struct StreamPlan {
    size_t index = 0;                     // m-line number
    std::string kind;                     // "audio" or "video"; other kinds are never active
    std::string mid;                      // as in the descriptions ("" when they have none)
    bool active = false;                  // false: rejected or disabled by either end
    std::string why_inactive;             // e.g. "no video codec in common", "port 0 in the offer"
    Profile profile = Profile::kUnknown;  // as in the answer
    bool send = false, receive = false;   // after both directions
    // What we send: the codec under the far end's payload type, with the
    // parameters we send (H264: our profile-level-id within what it accepts).
    Codec send_codec;
    int send_rtx_pt = -1;  // retransmissions of send_codec, -1 when not agreed
    // What we may receive: each payload type the far end may send us, rtx included
    // (name "rtx", fmtp "apt=<pt>"), and telephone-event.
    std::vector<Codec> receive_codecs;
    // Feedback both ends agreed for the video codec (audio: none).
    bool nack = false, pli = false, fir = false;
    bool rtcp_mux = false;
    bool rtcp_rsize = false;
    // The far end's transport.
    std::string remote_ufrag, remote_pwd;
    bool remote_ice_lite = false;
    std::vector<Candidate> remote_candidates;  // UDP only, usable addresses only
    // DTLS.
    std::string remote_fingerprint_hash, remote_fingerprint;
    bool dtls_client = false;  // we start the handshake
    // SDES: the a=crypto values agreed, "<tag> <suite> inline:<key>" (ours, theirs).
    std::string local_crypto, remote_crypto;
    // The far end's sources and stream ids, to name its tracks.
    std::vector<Source> remote_sources;
    std::string remote_stream_id, remote_track_id;  // a=msid, else the first a=ssrc msid
};

struct CallPlan {
    std::vector<StreamPlan> streams;  // one per m-line of the offer
    bool ice_controlling = false;     // this end nominates
    bool AnyActive() const;
};

// Our offer: audio then video, each present when asked for.
struct OfferOptions {
    bool audio = true, video = true;
    Direction audio_direction = Direction::kSendRecv;  // recvonly when we have no track
    Direction video_direction = Direction::kSendRecv;
    bool dtls = false;  // UDP/TLS/RTP/SAVPF (fingerprint, setup:actpass), else RTP/AVPF
};
// Without candidates: ports 9 and c=IN IP4 0.0.0.0 until the transport fills them in.
// Offers rtcp-mux (and the transport offers RTCP candidates too).
Description MakeOffer(const OfferOptions& options, const Local& local, const Capabilities& caps);

// The same offer with DTLS-SRTP in place of plain RTP: what is sent again when a
// far end refuses the plain one.
Description WithDtls(Description offer, const std::string& fingerprint);
// The same plain offer in RTP/AVP instead of RTP/AVPF (feedback lines kept): for SIP
// phones that refuse AVPF.
Description WithPlainAvp(Description offer);

// Our answer to `offer`. False when no section can be used, with *why naming the
// first thing missing or unusable ("no ICE credentials", "unencrypted media
// refused", "no audio or video codec in common", ...); the answer and the plan are
// then unspecified. Sections we cannot use are answered with port 0.
// `send_audio`/`send_video`: whether we have a track of that kind to send.
bool AnswerOffer(const Description& offer, const Local& local, const Capabilities& caps,
                 bool send_audio, bool send_video, Description* answer, CallPlan* plan,
                 std::string* why);

// What the far end's answer to our offer leaves. False when it leaves nothing
// usable or breaks the offer (a payload type we did not offer, a profile we did
// not offer, a downgrade to plain RTP from DTLS, missing ICE credentials...), with
// *why. An answer in DTLS-SRTP to our plain offer is accepted: it answers the DTLS
// variant of the offer that was sent again after a refusal.
bool ApplyAnswer(const Description& offer, const Description& answer, const Capabilities& caps,
                 CallPlan* plan, std::string* why);

// For the SIP engine, before it rings or accepts: why this text can never be
// answered (or, for an answer, applied to `our_offer`) with these capabilities (the
// installation's: whether it requires encryption); "" when it can.
std::string Unusable(const std::string& offer_text, const Capabilities& caps = Capabilities());
std::string UnusableAnswer(const std::string& our_offer_text, const std::string& answer_text,
                           const Capabilities& caps = Capabilities());

// Every distinct ICE user fragment, session or media level, in order of appearance
// (the engines name a call by its local fragments).
std::vector<std::string> IceUfrags(const std::string& text);
// Whether the author of `text` sends anything on a usable audio or video section.
bool SendsMedia(const std::string& text);

}  // namespace sdp
}  // namespace media
}  // namespace libwebrtc

#endif
