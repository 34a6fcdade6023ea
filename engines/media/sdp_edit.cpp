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

}  // namespace

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

}  // namespace sdp
}  // namespace media
}  // namespace libwebrtc
