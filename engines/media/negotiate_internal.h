// What the offer, the answer and the applied answer share: which codecs this engine
// can use, how H264 formats rank, and how a far end's transport goes into a plan.
#ifndef ZARNRTC_MEDIA_NEGOTIATE_INTERNAL_H
#define ZARNRTC_MEDIA_NEGOTIATE_INTERNAL_H

#include <string>
#include <vector>

#include "negotiate.h"

namespace libwebrtc {
namespace media {
namespace sdp {
namespace detail {

bool IsPlain(Profile p);  // RTP/AVP, RTP/AVPF
bool IsSdes(Profile p);   // RTP/SAVP, RTP/SAVPF
bool Sends(Direction d);
bool Receives(Direction d);

// Audio we send and receive: PCMA or PCMU at 8 kHz, and only when preferred.
bool UsableAudio(const Codec& c, const Capabilities& caps);
bool IsTelephoneEvent(const Codec& c);
// H264 as we can use it: 0 (constrained baseline, mode 1) .. 2 (any other profile,
// mode 1), 3..5 the same in mode 0 (the far end takes single NAL units only); -1
// unusable (interleaved mode, a broken profile-level-id).
int H264Rank(const Codec& c);
bool IsVp8(const Codec& c);
// Whether `c` is a video codec this engine sends.
bool UsableVideo(const Codec& c, const Capabilities& caps);
// The fmtp we send an H264 format with: the far end's packetization mode, our
// constrained baseline at no more than the level it takes.
std::string H264SendFmtp(const Codec& theirs, const std::string& mode);
// The retransmission format for `pt` in `m`, or null.
const Codec* FindRtx(const Media& m, int pt);
// The feedback both lists carry, of the kinds we handle (nack, nack pli, ccm fir).
std::vector<std::string> CommonFeedback(const Codec& a, const Codec& b);
void SetFeedback(const std::vector<std::string>& feedback, StreamPlan* sp);

// Our a=ssrc/msid lines in a section that sends `track`.
void AddSources(const Local& local, const std::string& track, uint32_t ssrc, uint32_t rtx_ssrc,
                Media* m);
// The far end's ICE, candidates, DTLS fingerprint and names.
void TakeRemote(const Media& remote, bool rtcp_mux, StreamPlan* sp);

}  // namespace detail
}  // namespace sdp
}  // namespace media
}  // namespace libwebrtc

#endif
