// Edits of session descriptions as plain text. Remote text is hostile: any line
// ending (CRLF, LF, none at the end), missing or repeated lines and garbage give
// a result, never a crash. Lines are found the way GStreamer's SDP parser finds
// them: split at '\n', a trailing '\r' dropped, leading blanks skipped.
#ifndef ZARNRTC_MEDIA_SDP_EDIT_H
#define ZARNRTC_MEDIA_SDP_EDIT_H

#include <string>
#include <utility>
#include <vector>

namespace libwebrtc {
namespace media {
namespace sdp {

// Adds "a=mid:<index>" to every m-section that has no a=mid (webrtcbin needs one).
std::string AddMissingMids(const std::string& text);

// Adds each (m-line index, "candidate:...") as an a=candidate line to its
// m-section unless that line is there already. Out-of-range indexes and
// candidates spanning lines are ignored.
using Candidates = std::vector<std::pair<unsigned, std::string>>;
std::string AddCandidates(const std::string& text, const Candidates& candidates);

// Stream and track id of m-section `mline` from a=msid, or from a=ssrc ... msid:.
// False when there is none; *track may be empty.
bool FindMsid(const std::string& text, unsigned mline, std::string* stream, std::string* track);

// The payload type of m-section `mline` for the H264 we send (constrained
// baseline in FU-A packets): packetization-mode=1 required; constrained baseline
// first, then baseline, then main (both decode it), then no profile-level-id;
// the offerer's order within a rank. -1 when there is none.
int PickH264Payload(const std::string& text, unsigned mline);

// webrtcbin answers H264 without the offer's profile-level-id, which then reads as
// baseline level 1.0: each answer fmtp of an H264 format without one takes the
// offer's value for the same m-section and payload type.
std::string AnswerH264Profile(const std::string& answer, const std::string& offer);

}  // namespace sdp
}  // namespace media
}  // namespace libwebrtc

#endif
