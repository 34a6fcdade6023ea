// Pure text edits of session descriptions (no GStreamer: unit-tested alone).
#include "sdp_edit.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace libwebrtc {
namespace media {
namespace sdp {
namespace {

struct Line {
    size_t begin;  // first character after leading blanks
    size_t end;    // before "\r\n" / "\n"
    size_t next;   // start of the following line
};

// One m-section: its lines and where a new line would go.
struct Section {
    std::vector<Line> lines;
    size_t insert_at = 0;
};

std::vector<Line> SplitLines(const std::string& text) {
    std::vector<Line> lines;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        size_t next = nl == std::string::npos ? text.size() : nl + 1;
        size_t end = nl == std::string::npos ? text.size() : nl;
        if (end > pos && text[end - 1] == '\r') --end;
        size_t begin = pos;
        while (begin < end && (text[begin] == ' ' || text[begin] == '\t')) ++begin;
        lines.push_back({begin, end, next});
        pos = next;
    }
    return lines;
}

bool StartsWith(const std::string& text, const Line& line, const char* prefix) {
    return text.compare(line.begin, std::char_traits<char>::length(prefix), prefix) == 0 &&
           line.end - line.begin >= std::char_traits<char>::length(prefix);
}

std::vector<Section> Sections(const std::string& text) {
    std::vector<Section> sections;
    for (const Line& line : SplitLines(text)) {
        if (StartsWith(text, line, "m=")) sections.emplace_back();
        if (sections.empty()) continue;
        sections.back().lines.push_back(line);
        sections.back().insert_at = line.next;
    }
    return sections;
}

std::string Value(const std::string& text, const Line& line, size_t prefix_len) {
    return text.substr(line.begin + prefix_len, line.end - line.begin - prefix_len);
}

// The text's own line ending, CRLF when it has none.
std::string LineEnding(const std::string& text) {
    size_t nl = text.find('\n');
    if (nl == std::string::npos) return "\r\n";
    return nl > 0 && text[nl - 1] == '\r' ? "\r\n" : "\n";
}

// Inserts lines (offset, line) into text; offsets refer to the original text.
std::string Insert(const std::string& text, std::vector<std::pair<size_t, std::string>> adds) {
    if (adds.empty()) return text;
    const std::string eol = LineEnding(text);
    std::string out;
    size_t copied = 0;
    for (auto& add : adds) {  // in ascending offset order
        out.append(text, copied, add.first - copied);
        copied = add.first;
        if (!out.empty() && out.back() != '\n') out += eol;  // last line had no ending
        out += add.second + eol;
    }
    out.append(text, copied, std::string::npos);
    return out;
}

constexpr size_t kMaxDescriptionBytes = 64 * 1024;
constexpr size_t kMaxMediaSections = 8;  // a call has one audio and one video

// A media section webrtcbin can negotiate: audio or video, a port, DTLS-SRTP.
bool UsableMedia(const std::string& text, const Line& mline) {
    std::istringstream in(Value(text, mline, 2));
    std::string kind, port, proto;
    in >> kind >> port >> proto;
    return (kind == "audio" || kind == "video") && !port.empty() && port != "0" &&
           (proto == "UDP/TLS/RTP/SAVPF" || proto == "UDP/TLS/RTP/SAVP");
}

bool Has(const std::string& text, const std::vector<Line>& lines, const char* prefix) {
    for (const Line& line : lines)
        if (StartsWith(text, line, prefix) && line.end - line.begin > std::strlen(prefix))
            return true;
    return false;
}

}  // namespace

std::string Unusable(const std::string& text) {
    if (text.size() > kMaxDescriptionBytes) return "description too large";
    for (char c : text)
        if (static_cast<unsigned char>(c) < 0x20 && c != '\r' && c != '\n' && c != '\t')
            return "control bytes in the description";
    std::vector<Line> lines = SplitLines(text);
    size_t first = 0;
    while (first < lines.size() && lines[first].begin == lines[first].end) ++first;
    if (first == lines.size() || !StartsWith(text, lines[first], "v=0")) return "not SDP";
    std::vector<Line> session;
    for (const Line& line : lines) {
        if (StartsWith(text, line, "m=")) break;
        session.push_back(line);
    }
    std::vector<Section> sections = Sections(text);
    if (sections.size() > kMaxMediaSections) return "too many media sections";
    // One section with everything is enough: bundled sections may share its transport.
    std::string missing;
    for (const Section& section : sections) {
        if (!UsableMedia(text, section.lines.front())) continue;
        bool complete = true;
        for (const char* need : {"a=ice-ufrag:", "a=ice-pwd:", "a=fingerprint:"}) {
            if (Has(text, section.lines, need) || Has(text, session, need)) continue;
            complete = false;
            if (missing.empty()) {
                missing = need + 2;
                missing.pop_back();
            }
        }
        if (complete) return "";
    }
    return missing.empty() ? "no audio or video in DTLS-SRTP"
                           : "no " + missing + " for a media section";
}

std::string AddMissingMids(const std::string& text) {
    std::vector<std::pair<size_t, std::string>> adds;
    std::vector<Section> sections = Sections(text);
    for (size_t i = 0; i < sections.size(); ++i) {
        bool has_mid = false;
        for (const Line& line : sections[i].lines) has_mid |= StartsWith(text, line, "a=mid:");
        if (!has_mid) adds.emplace_back(sections[i].insert_at, "a=mid:" + std::to_string(i));
    }
    return Insert(text, std::move(adds));
}

std::string AddCandidates(const std::string& text, const Candidates& candidates) {
    std::vector<Section> sections = Sections(text);
    std::vector<std::vector<std::string>> added(sections.size());
    for (const auto& c : candidates) {
        if (c.first >= sections.size() || c.second.find_first_of("\r\n") != std::string::npos)
            continue;
        std::string value = c.second.rfind("candidate:", 0) == 0 ? c.second.substr(10) : c.second;
        std::string line = "a=candidate:" + value;
        bool present = false;
        for (const Line& l : sections[c.first].lines)
            present |= text.compare(l.begin, l.end - l.begin, line) == 0;
        for (const std::string& a : added[c.first]) present |= a == line;
        if (!present) added[c.first].push_back(line);
    }
    std::vector<std::pair<size_t, std::string>> adds;
    for (size_t i = 0; i < sections.size(); ++i)
        for (std::string& line : added[i]) adds.emplace_back(sections[i].insert_at, line);
    return Insert(text, std::move(adds));
}

namespace {

// Value of `key` in an fmtp parameter list ("a=1;b=2"), "" when absent.
std::string FmtpParam(const std::string& params, const std::string& key) {
    size_t pos = 0;
    while (pos < params.size()) {
        size_t end = params.find(';', pos);
        if (end == std::string::npos) end = params.size();
        std::string item = params.substr(pos, end - pos);
        item.erase(0, item.find_first_not_of(' '));
        size_t eq = item.find('=');
        if (eq != std::string::npos && item.compare(0, eq, key) == 0) return item.substr(eq + 1);
        pos = end + 1;
    }
    return "";
}

// 0 best .. 3 acceptable, -1 unusable: how well a browser's H264 format takes our stream.
int H264Rank(const std::string& fmtp) {
    if (FmtpParam(fmtp, "packetization-mode") != "1") return -1;
    std::string plid = FmtpParam(fmtp, "profile-level-id");
    if (plid.empty()) return 3;
    if (plid.size() != 6 || plid.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return -1;
    unsigned long v = std::strtoul(plid.c_str(), nullptr, 16);
    unsigned profile = (v >> 16) & 0xff, constraints = (v >> 8) & 0xff;
    if (profile == 0x42 && (constraints & 0x40)) return 0;
    if (profile == 0x4d && (constraints & 0x80)) return 0;  // constrained baseline, as 4d flags it
    if (profile == 0x42) return 1;
    if (profile == 0x4d) return 2;
    return -1;
}

// Whether `pt` is H264 in the section, and its fmtp parameters and line.
struct Format {
    bool h264 = false;
    std::string fmtp;
    const Line* fmtp_line = nullptr;
};

Format FormatOf(const std::string& text, const Section& section, const std::string& pt) {
    Format f;
    for (const Line& line : section.lines) {
        bool rtpmap = StartsWith(text, line, "a=rtpmap:");
        if (!rtpmap && !StartsWith(text, line, "a=fmtp:")) continue;
        std::string v = Value(text, line, rtpmap ? 9 : 7);
        if (v.compare(0, pt.size() + 1, pt + " ") != 0) continue;
        std::string rest = v.substr(pt.size() + 1);
        if (rtpmap) {
            f.h264 = strncasecmp(rest.c_str(), "H264/90000", 10) == 0;
        } else {
            f.fmtp = rest;
            f.fmtp_line = &line;
        }
    }
    return f;
}

bool IsPayloadType(const std::string& pt) {
    return !pt.empty() && pt.size() <= 3 &&
           pt.find_first_not_of("0123456789") == std::string::npos && std::atoi(pt.c_str()) <= 127;
}

// The payload types of an m-line.
std::vector<std::string> Formats(const std::string& text, const Section& section) {
    std::istringstream m(Value(text, section.lines.front(), 2));
    std::string kind, port, proto, pt;
    m >> kind >> port >> proto;
    std::vector<std::string> out;
    while (m >> pt)
        if (IsPayloadType(pt)) out.push_back(pt);
    return out;
}

}  // namespace

std::string AnswerH264Profile(const std::string& answer, const std::string& offer) {
    std::vector<Section> ours = Sections(answer), theirs = Sections(offer);
    std::vector<std::pair<size_t, std::string>> edits;  // end of an fmtp line, text to add
    for (size_t i = 0; i < ours.size() && i < theirs.size(); ++i) {
        for (const std::string& pt : Formats(answer, ours[i])) {
            Format a = FormatOf(answer, ours[i], pt);
            if (!a.h264 || !a.fmtp_line || !FmtpParam(a.fmtp, "profile-level-id").empty()) continue;
            std::string plid = FmtpParam(FormatOf(offer, theirs[i], pt).fmtp, "profile-level-id");
            if (plid.size() != 6 ||
                plid.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
                continue;
            edits.emplace_back(a.fmtp_line->end, ";profile-level-id=" + plid);
        }
    }
    std::sort(edits.begin(), edits.end());
    std::string out;
    size_t copied = 0;
    for (auto& e : edits) {
        if (e.first < copied) continue;  // the same line listed twice
        out.append(answer, copied, e.first - copied);
        out += e.second;
        copied = e.first;
    }
    out.append(answer, copied, std::string::npos);
    return out;
}

int PickH264Payload(const std::string& text, unsigned mline) {
    std::vector<Section> sections = Sections(text);
    if (mline >= sections.size()) return -1;
    int best = -1, best_rank = 4;
    for (const std::string& pt : Formats(text, sections[mline])) {
        Format f = FormatOf(text, sections[mline], pt);
        int rank = f.h264 ? H264Rank(f.fmtp) : -1;
        if (rank >= 0 && rank < best_rank) {
            best_rank = rank;
            best = std::atoi(pt.c_str());
        }
    }
    return best;
}

bool FindMsid(const std::string& text, unsigned mline, std::string* stream, std::string* track) {
    std::vector<Section> sections = Sections(text);
    if (mline >= sections.size()) return false;
    for (const Line& line : sections[mline].lines) {
        std::string v;
        if (StartsWith(text, line, "a=msid:")) {
            v = Value(text, line, 7);
        } else if (StartsWith(text, line, "a=ssrc:")) {
            std::string ssrc = Value(text, line, 7);
            size_t at = ssrc.find(" msid:");
            if (at == std::string::npos) continue;
            v = ssrc.substr(at + 6);
        } else {
            continue;
        }
        std::istringstream in(v);
        std::string s, t;
        in >> s >> t;
        if (s.empty()) continue;
        *stream = s;
        *track = t;
        return true;
    }
    return false;
}

std::vector<std::string> IceUfrags(const std::string& text) {
    std::vector<std::string> ufrags;
    for (const Line& line : SplitLines(text)) {
        if (!StartsWith(text, line, "a=ice-ufrag:")) continue;
        std::string value = Value(text, line, std::strlen("a=ice-ufrag:"));
        if (value.empty()) continue;
        bool known = false;
        for (const std::string& u : ufrags) known = known || u == value;
        if (!known) ufrags.push_back(value);
    }
    return ufrags;
}

namespace {

// "" when `lines` carry no direction attribute.
std::string Direction(const std::string& text, const std::vector<Line>& lines) {
    for (const Line& line : lines)
        for (const char* dir : {"a=sendrecv", "a=sendonly", "a=recvonly", "a=inactive"})
            if (line.end - line.begin == std::strlen(dir) && StartsWith(text, line, dir))
                return dir + 2;
    return "";
}

}  // namespace

bool SendsMedia(const std::string& text) {
    std::vector<Line> session;
    for (const Line& line : SplitLines(text)) {
        if (StartsWith(text, line, "m=")) break;
        session.push_back(line);
    }
    std::string fallback = Direction(text, session);
    if (fallback.empty()) fallback = "sendrecv";
    for (const Section& section : Sections(text)) {
        if (!UsableMedia(text, section.lines.front())) continue;
        std::string dir = Direction(text, section.lines);
        if (dir.empty()) dir = fallback;
        if (dir == "sendrecv" || dir == "sendonly") return true;
    }
    return false;
}

}  // namespace sdp
}  // namespace media
}  // namespace libwebrtc
