// The description model's small parts and its writer. The reader is sdp_parse.cpp.
#include "sdp_model.h"

#include <cctype>

#include "sdp_text.h"

namespace libwebrtc {
namespace media {
namespace sdp {

const char* ProfileName(Profile p) {
    switch (p) {
        case Profile::kAvp:
            return "RTP/AVP";
        case Profile::kAvpf:
            return "RTP/AVPF";
        case Profile::kSavp:
            return "RTP/SAVP";
        case Profile::kSavpf:
            return "RTP/SAVPF";
        case Profile::kDtlsSavp:
            return "UDP/TLS/RTP/SAVP";
        case Profile::kDtlsSavpf:
            return "UDP/TLS/RTP/SAVPF";
        default:
            return "";
    }
}

bool IsDtls(Profile p) {
    return p == Profile::kDtlsSavp || p == Profile::kDtlsSavpf;
}

bool HasFeedback(Profile p) {
    return p == Profile::kAvpf || p == Profile::kSavpf || p == Profile::kDtlsSavpf;
}

const char* DirectionName(Direction d) {
    switch (d) {
        case Direction::kSendOnly:
            return "sendonly";
        case Direction::kRecvOnly:
            return "recvonly";
        case Direction::kInactive:
            return "inactive";
        default:
            return "sendrecv";
    }
}

Direction Reverse(Direction d) {
    if (d == Direction::kSendOnly) return Direction::kRecvOnly;
    if (d == Direction::kRecvOnly) return Direction::kSendOnly;
    return d;
}

const char* SetupName(Setup s) {
    switch (s) {
        case Setup::kActPass:
            return "actpass";
        case Setup::kActive:
            return "active";
        case Setup::kPassive:
            return "passive";
        case Setup::kHoldConn:
            return "holdconn";
        default:
            return "";
    }
}

std::string Candidate::Attribute() const {
    std::string s = "candidate:" + foundation + " " + std::to_string(component) + " " + transport +
                    " " + std::to_string(priority) + " " + address + " " + std::to_string(port) +
                    " typ " + type;
    if (!related_address.empty())
        s += " raddr " + related_address + " rport " + std::to_string(related_port);
    if (!tcp_type.empty()) s += " tcptype " + tcp_type;
    return s;
}

namespace {

bool IceChars(const std::string& s) {
    for (char c : s)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '/') return false;
    return true;
}

// raddr/rport/tcptype among the name-value pairs after the type; others skipped.
bool CandidateExtensions(const std::vector<std::string>& w, Candidate* c) {
    for (size_t i = 8; i + 1 < w.size(); i += 2) {
        if (w[i] == "raddr") {
            c->related_address = w[i + 1];
        } else if (w[i] == "rport") {
            if (!text::ToInt(w[i + 1], 0, 65535, &c->related_port)) return false;
        } else if (w[i] == "tcptype") {
            c->tcp_type = text::Lower(w[i + 1]);
        }
    }
    return true;
}

}  // namespace

bool ParseCandidate(const std::string& line, Candidate* out) {
    std::string s = line.compare(0, 2, "a=") == 0 ? line.substr(2) : line;
    if (s.compare(0, 10, "candidate:") != 0) return false;
    std::vector<std::string> w = text::Words(s.substr(10), 40);
    if (w.size() < 8 || w[6] != "typ") return false;
    Candidate c;
    uint64_t priority = 0;
    c.foundation = w[0];
    c.transport = text::Lower(w[2]);
    c.address = w[4];
    c.type = text::Lower(w[7]);
    if (c.foundation.size() > 32 || !IceChars(c.foundation) ||
        !text::ToInt(w[1], 1, 256, &c.component) ||
        (c.transport != "udp" && c.transport != "tcp") ||
        !text::ToNumber(w[3], 0, 0xffffffffu, &priority) || c.address.size() > 255 ||
        !text::ToInt(w[5], 0, 65535, &c.port) ||
        (c.type != "host" && c.type != "srflx" && c.type != "prflx" && c.type != "relay") ||
        !CandidateExtensions(w, &c))
        return false;
    c.priority = static_cast<uint32_t>(priority);
    *out = c;
    return true;
}

std::string Codec::Param(const std::string& key) const {
    size_t pos = 0;
    while (pos < fmtp.size()) {
        size_t end = fmtp.find(';', pos);
        if (end == std::string::npos) end = fmtp.size();
        std::string item = text::Trim(fmtp.substr(pos, end - pos));
        size_t eq = item.find('=');
        if (eq != std::string::npos &&
            text::EqualNoCase(text::Trim(item.substr(0, eq)), key.c_str()))
            return text::Trim(item.substr(eq + 1));
        pos = end + 1;
    }
    return "";
}

bool Codec::Is(const char* codec_name) const {
    return text::EqualNoCase(name, codec_name);
}

bool Codec::HasFeedback(const char* value) const {
    for (const std::string& f : feedback)
        if (f == value) return true;
    return false;
}

const Codec* Media::Find(int pt) const {
    for (const Codec& c : codecs)
        if (c.pt == pt) return &c;
    return nullptr;
}

// ---- Writing ----

namespace {

// Lines with CRLF; control bytes in a value are dropped, so no value can start a
// line of its own.
class Lines {
  public:
    void Add(char type, const std::string& value) {
        out_ += type;
        out_ += '=';
        for (char c : value)
            if (static_cast<unsigned char>(c) >= 0x20 && c != 0x7f) out_ += c;
        out_ += "\r\n";
    }
    void Attr(const std::string& value) { Add('a', value); }
    std::string Take() { return std::move(out_); }

  private:
    std::string out_;
};

// A one-word field: `fallback` when empty or not one word.
std::string Token(const std::string& s, const char* fallback) {
    return s.empty() || s.find_first_of(" \t") != std::string::npos ? fallback : s;
}

std::string Connection(const std::string& address) {
    std::string a = Token(address, "0.0.0.0");
    return std::string(a.find(':') != std::string::npos ? "IN IP6 " : "IN IP4 ") + a;
}

std::string MLine(const Media& m) {
    std::string line = Token(m.kind, "audio") + " " + std::to_string(m.port) + " " +
                       Token(m.protocol.empty() ? ProfileName(m.profile) : m.protocol, "RTP/AVP");
    if (!m.codecs.empty()) {
        for (const Codec& c : m.codecs)
            if (c.pt >= 0 && c.pt <= 127) line += " " + std::to_string(c.pt);
    } else {
        for (const std::string& f : m.formats) line += " " + Token(f, "0");
    }
    return line;
}

void WriteTransport(const Media& m, Lines* out) {
    if (m.rtcp_port > 0) {
        std::string rtcp = "rtcp:" + std::to_string(m.rtcp_port);
        if (!m.rtcp_address.empty()) rtcp += " " + Connection(m.rtcp_address);
        out->Attr(rtcp);
    }
    for (const Candidate& c : m.candidates) out->Attr(c.Attribute());
    if (!m.ice_ufrag.empty()) out->Attr("ice-ufrag:" + m.ice_ufrag);
    if (!m.ice_pwd.empty()) out->Attr("ice-pwd:" + m.ice_pwd);
    if (!m.fingerprint.empty())
        out->Attr("fingerprint:" + Token(m.fingerprint_hash, "sha-256") + " " + m.fingerprint);
    if (m.setup != Setup::kNone) out->Attr(std::string("setup:") + SetupName(m.setup));
    for (const std::string& c : m.crypto) out->Attr("crypto:" + c);
    if (!m.mid.empty()) out->Attr("mid:" + m.mid);
    out->Attr(DirectionName(m.direction));
    if (!m.msid_stream.empty()) {
        std::string msid = "msid:" + m.msid_stream;
        if (!m.msid_track.empty()) msid += " " + m.msid_track;
        out->Attr(msid);
    }
    if (m.rtcp_mux) out->Attr("rtcp-mux");
    if (m.rtcp_rsize) out->Attr("rtcp-rsize");
}

void WriteCodecs(const Media& m, Lines* out) {
    for (const Codec& c : m.codecs) {
        if (c.pt < 0 || c.pt > 127) continue;
        std::string pt = std::to_string(c.pt);
        if (!c.name.empty() && c.clock_rate > 0) {
            std::string map = pt + " " + c.name + "/" + std::to_string(c.clock_rate);
            if (c.channels > 0) map += "/" + std::to_string(c.channels);
            out->Attr("rtpmap:" + map);
        }
        if (!c.fmtp.empty()) out->Attr("fmtp:" + pt + " " + c.fmtp);
        for (const std::string& f : c.feedback) out->Attr("rtcp-fb:" + pt + " " + f);
    }
    if (m.ptime > 0) out->Attr("ptime:" + std::to_string(m.ptime));
}

void WriteSources(const Media& m, Lines* out) {
    for (const std::vector<uint32_t>& group : m.fid_groups) {
        std::string line = "ssrc-group:FID";
        for (uint32_t ssrc : group) line += " " + std::to_string(ssrc);
        out->Attr(line);
    }
    for (const Source& s : m.sources) {
        std::string head = "ssrc:" + std::to_string(s.ssrc) + " ";
        if (!s.cname.empty()) out->Attr(head + "cname:" + s.cname);
        if (!s.msid_stream.empty())
            out->Attr(head + "msid:" + s.msid_stream +
                      (s.msid_track.empty() ? "" : " " + s.msid_track));
        if (!s.mslabel.empty()) out->Attr(head + "mslabel:" + s.mslabel);
        if (!s.label.empty()) out->Attr(head + "label:" + s.label);
    }
}

void WriteMedia(const Media& m, Lines* out) {
    out->Add('m', MLine(m));
    out->Add('c', Connection(m.address));
    if (m.port == 0) {
        if (!m.mid.empty()) out->Attr("mid:" + m.mid);
        return;
    }
    if (m.bandwidth_kbps > 0) out->Add('b', "AS:" + std::to_string(m.bandwidth_kbps));
    WriteTransport(m, out);
    WriteCodecs(m, out);
    WriteSources(m, out);
    if (m.end_of_candidates) out->Attr("end-of-candidates");
}

}  // namespace

std::string Write(const Description& d) {
    Lines out;
    out.Add('v', "0");
    std::string origin_address = Token(d.origin_address, "0.0.0.0");
    out.Add('o', Token(d.origin_user, "-") + " " + Token(d.session_id, "0") + " " +
                     Token(d.session_version, "0") + " " + Connection(origin_address));
    out.Add('s', d.session_name.empty() ? "-" : d.session_name);
    if (!d.address.empty()) out.Add('c', Connection(d.address));
    out.Add('t', "0 0");
    for (const std::vector<std::string>& group : d.bundle_groups) {
        std::string line = "group:BUNDLE";
        for (const std::string& mid : group) line += " " + mid;
        out.Attr(line);
    }
    bool sources = false;
    for (const Media& m : d.media) sources = sources || (m.port != 0 && !m.sources.empty());
    if (sources) out.Attr("msid-semantic: WMS *");
    for (const Media& m : d.media) WriteMedia(m, &out);
    return out.Take();
}

}  // namespace sdp
}  // namespace media
}  // namespace libwebrtc
