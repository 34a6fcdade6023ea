// Session descriptions as values: read from hostile text, written for the wire.
// No GStreamer here: the SIP engine links this too, and it is tested on its own.
#ifndef ZARNRTC_MEDIA_SDP_MODEL_H
#define ZARNRTC_MEDIA_SDP_MODEL_H

#include <cstdint>
#include <string>
#include <vector>

namespace libwebrtc {
namespace media {
namespace sdp {

// The m-line's transport protocol.
enum class Profile {
    kUnknown,    // anything else (TCP/..., RTP/SAVP without crypto counts as kSavp)
    kAvp,        // RTP/AVP: plain RTP
    kAvpf,       // RTP/AVPF: plain RTP with immediate feedback
    kSavp,       // RTP/SAVP: SRTP keyed by a=crypto (SDES)
    kSavpf,      // RTP/SAVPF
    kDtlsSavp,   // UDP/TLS/RTP/SAVP: SRTP keyed by DTLS
    kDtlsSavpf,  // UDP/TLS/RTP/SAVPF
};
const char* ProfileName(Profile p);  // the protocol text; "" for kUnknown
bool IsDtls(Profile p);
bool HasFeedback(Profile p);  // the AVPF family

enum class Direction { kSendRecv, kSendOnly, kRecvOnly, kInactive };
const char* DirectionName(Direction d);  // "sendrecv", ...
Direction Reverse(Direction d);          // sendonly <-> recvonly

enum class Setup { kNone, kActPass, kActive, kPassive, kHoldConn };
const char* SetupName(Setup s);  // "" for kNone

struct Candidate {
    std::string foundation;
    int component = 1;
    std::string transport;  // "udp" or "tcp", lower case
    uint32_t priority = 0;
    std::string address;
    int port = 0;
    std::string type;  // host, srflx, prflx, relay
    std::string related_address;
    int related_port = 0;
    std::string tcp_type;
    // "candidate:..." without "a=", as written to the wire and to OnIceCandidate.
    std::string Attribute() const;
};
// Reads "candidate:..." or "a=candidate:..."; false on anything malformed.
bool ParseCandidate(const std::string& text, Candidate* out);

struct Codec {
    int pt = -1;       // 0..127
    std::string name;  // as written ("H264", "PCMA", "rtx", "telephone-event"...)
    int clock_rate = 0;
    int channels = 0;                   // 0 when not written
    std::string fmtp;                   // parameters after "a=fmtp:<pt> ", "" when none
    std::vector<std::string> feedback;  // "nack", "nack pli", "ccm fir", "goog-remb"...
                                        // (a=rtcp-fb:<pt> and a=rtcp-fb:* merged)
    // fmtp parameter value ("packetization-mode", "apt"...), "" when absent.
    std::string Param(const std::string& key) const;
    bool Is(const char* codec_name) const;  // case-insensitive name match
    bool HasFeedback(const char* value) const;
};

// One a=ssrc source with the attributes the device's Plan B writes.
struct Source {
    uint32_t ssrc = 0;
    std::string cname, msid_stream, msid_track, mslabel, label;
};

struct Media {
    std::string kind;      // "audio", "video", "application", ...
    int port = 0;          // 0: rejected / disabled
    std::string protocol;  // as written
    Profile profile = Profile::kUnknown;
    std::vector<std::string> formats;  // the m-line's format list, as written
    std::vector<Codec> codecs;         // formats that are RTP payload types, in m-line order;
                                       // static types (0 PCMU, 8 PCMA, 9 G722, 18 G729...) get
                                       // their name and rate even without a=rtpmap
    std::string address;               // c= of the section, else of the session ("" when none)
    Direction direction = Direction::kSendRecv;  // own, else session's, else sendrecv
    std::string mid;                             // "" when absent
    // ICE, own else the session's.
    std::string ice_ufrag, ice_pwd;
    bool ice_lite = false;
    std::vector<Candidate> candidates;
    bool end_of_candidates = false;
    // RTCP.
    bool rtcp_mux = false;
    int rtcp_port = 0;         // a=rtcp port, 0 when absent
    std::string rtcp_address;  // a=rtcp address, "" when absent
    bool rtcp_rsize = false;
    bool bundle_only = false;  // a=bundle-only (its port is then 0)
    // Security, own else the session's.
    std::string fingerprint_hash;  // "sha-256", lower case
    std::string fingerprint;       // "AB:CD:..." upper case
    Setup setup = Setup::kNone;
    std::vector<std::string> crypto;  // a=crypto values (SDES), as written
    // Sources and grouping.
    std::vector<Source> sources;
    std::vector<std::vector<uint32_t>> fid_groups;  // a=ssrc-group:FID
    std::string msid_stream, msid_track;            // a=msid
    int ptime = 0;                                  // a=ptime, ms
    int bandwidth_kbps = 0;                         // b=AS

    const Codec* Find(int pt) const;
};

struct Description {
    std::string origin_user = "-";
    std::string session_id, session_version;  // decimal text
    std::string origin_address = "0.0.0.0";
    std::string session_name = "-";
    std::string address;                                  // session c=, "" when none
    std::vector<std::vector<std::string>> bundle_groups;  // a=group:BUNDLE mids
    std::vector<Media> media;
};

// Reads a description: CRLF or LF, a last line without an ending, blank-led lines,
// unknown lines and attributes ignored. Refuses (false, *error says why, e.g. "not
// SDP", "too large", "control bytes", "too many media sections", "bad m-line 2")
// anything that cannot be a description; the result is then unspecified.
// Session-level values (c=, ICE, fingerprint, setup, direction) are resolved into
// each section. m-lines are counted from 1 in the error text. Bounded: at most 64 KiB
// of text, 8 sections, and per section 48 formats, 32 candidates, 16 sources, 16
// feedback values per codec; the rest is ignored. Repeated single-valued attributes:
// the first counts.
bool Parse(const std::string& text, Description* out, std::string* error);

// Writes a description with CRLF line ends, in the order RFC 8866 asks for. Each
// section writes: m= (port, protocol, its codecs' payload types), c=, a=rtcp (when
// rtcp_port is set), candidates, ICE credentials, fingerprint and setup (when set),
// mid (when set), direction, rtcp-mux, rtcp-rsize, rtpmap/fmtp/rtcp-fb per codec,
// ssrc-group FID, ssrc lines (cname, msid, mslabel, label), end-of-candidates.
// A rejected section (port 0) writes its m-line with the codecs' types (or the
// formats when there are no codecs) and nothing else but c= and mid.
// Session level: v, o, s, c (when set), t, BUNDLE groups (when any),
// "a=msid-semantic: WMS *" when any section has sources.
std::string Write(const Description& d);

}  // namespace sdp
}  // namespace media
}  // namespace libwebrtc

#endif
