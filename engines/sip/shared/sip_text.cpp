#include "sip_text.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstring>
#include <strings.h>

namespace sipengine {

namespace {

std::string trim(const std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && isspace(static_cast<unsigned char>(s[b]))) ++b;
    while (e > b && isspace(static_cast<unsigned char>(s[e - 1]))) --e;
    return s.substr(b, e - b);
}

bool startsWithNoCase(const std::string& s, const char* prefix) {
    size_t n = strlen(prefix);
    return s.size() >= n && strncasecmp(s.data(), prefix, n) == 0;
}

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

bool isControl(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

// The leading decimal digits of `s` (at least one, no sign) as a value <= max; false
// when there are none or the value is larger. *used: how many characters they took.
bool leadingNumber(const std::string& s, long max, long* out, size_t* used = nullptr) {
    long value = 0;
    size_t n = 0;
    for (; n < s.size() && isdigit(static_cast<unsigned char>(s[n])); ++n) {
        value = value * 10 + (s[n] - '0');
        if (value > max) return false;
    }
    if (n == 0) return false;
    *out = value;
    if (used) *used = n;
    return true;
}

// The whole of `s` is a decimal number <= max.
bool wholeNumber(const std::string& s, long max, long* out) {
    size_t used = 0;
    return leadingNumber(s, max, out, &used) && used == s.size();
}

constexpr long kMaxPort = 65535;

// "host", "host:port", "[v6]", "[v6]:port" with a port in 1..65535.
bool validHostPort(const std::string& s) {
    size_t hostEnd;
    if (!s.empty() && s[0] == '[') {
        hostEnd = s.find(']');
        if (hostEnd == std::string::npos || hostEnd == 1) return false;
        for (size_t i = 1; i < hostEnd; ++i)
            if (!isxdigit(static_cast<unsigned char>(s[i])) && s[i] != ':' && s[i] != '.')
                return false;
        ++hostEnd;
    } else {
        hostEnd = std::min(s.find(':'), s.size());
        if (hostEnd == 0) return false;
        for (size_t i = 0; i < hostEnd; ++i)
            if (!isalnum(static_cast<unsigned char>(s[i])) && !strchr(".-_", s[i])) return false;
    }
    if (hostEnd == s.size()) return true;
    long port = 0;
    return s[hostEnd] == ':' && wholeNumber(s.substr(hostEnd + 1), kMaxPort, &port) && port > 0;
}

}  // namespace

std::string hostPortOf(const char* address) {
    if (!address) return {};
    std::string s = trim(address);
    if (!s.empty() && s.front() == '<') s.erase(0, 1);
    if (startsWithNoCase(s, "sip:"))
        s.erase(0, 4);
    else if (startsWithNoCase(s, "sips:"))
        s.erase(0, 5);
    size_t at = s.find('@');
    if (at != std::string::npos) s.erase(0, at + 1);
    size_t end = s.find_first_of(";?>/ \t");
    if (end != std::string::npos) s.erase(end);
    return validHostPort(s) ? s : std::string();
}

std::string transportParam(const char* transport) {
    std::string t = lower(trim(transport ? transport : ""));
    if (t.empty() || t == "udp") return "udp";
    if (t == "tcp") return "tcp";
    return {};
}

std::string sdpSetupRole(const std::string& sdp) {
    static const char kAttr[] = "a=setup:";
    size_t at = sdp.find(kAttr);
    if (at == std::string::npos || (at > 0 && sdp[at - 1] != '\n')) return {};
    at += sizeof(kAttr) - 1;
    size_t end = sdp.find_first_of("\r\n", at);
    return lower(trim(sdp.substr(at, end == std::string::npos ? std::string::npos : end - at)));
}

std::string answerWithRole(const std::string& sdp, const std::string& remoteRole) {
    const std::string from = "a=setup:actpass";
    const std::string to = remoteRole == "passive"  ? "a=setup:active"
                           : remoteRole == "active" ? "a=setup:passive"
                                                    : "a=setup:active";
    std::string out = sdp;
    for (size_t at = out.find(from); at != std::string::npos; at = out.find(from, at + to.size()))
        out.replace(at, from.size(), to);
    return out;
}

bool wantsTls(const char* address) {
    std::string s = lower(trim(address ? address : ""));
    if (!s.empty() && s.front() == '<') s.erase(0, 1);
    return startsWithNoCase(s, "sips:") || s.find(";transport=tls") != std::string::npos;
}

std::string calleeUri(const char* callee, const std::string& domain) {
    if (!callee) return {};
    std::string s = trim(callee);
    if (!s.empty() && s.front() == '<' && s.back() == '>') s = s.substr(1, s.size() - 2);
    if (s.empty()) return {};
    // Nothing that could leave the request URI or the To header.
    for (char c : s)
        if (isControl(c) || c == ' ' || c == '<' || c == '>' || c == '"') return {};
    if (startsWithNoCase(s, "sip:") || startsWithNoCase(s, "sips:")) {
        return hostPortOf(s.c_str()).empty() ? std::string() : s;
    }
    if (s.find('@') != std::string::npos) {
        return hostPortOf(s.c_str()).empty() ? std::string() : "sip:" + s;
    }
    if (domain.empty() || s.find_first_of(";:?/") != std::string::npos) return {};
    return "sip:" + s + "@" + domain;
}

MediaFlags sdpMediaFlags(const std::string& sdp) {
    MediaFlags flags;
    size_t pos = 0;
    while (pos < sdp.size()) {
        size_t eol = sdp.find('\n', pos);
        std::string line =
            sdp.substr(pos, eol == std::string::npos ? std::string::npos : eol - pos);
        pos = eol == std::string::npos ? sdp.size() : eol + 1;
        if (line.compare(0, 2, "m=") != 0) continue;
        size_t sp = line.find(' ');
        if (sp == std::string::npos) continue;
        std::string kind = line.substr(2, sp - 2);
        size_t portAt = line.find_first_not_of(' ', sp);
        long port = 0;
        size_t used = 0;
        if (portAt == std::string::npos ||
            !leadingNumber(line.substr(portAt), kMaxPort, &port, &used) || port == 0)
            continue;
        // The port ends the field or is followed by "/count".
        char next = portAt + used < line.size() ? line[portAt + used] : ' ';
        if (next != ' ' && next != '/' && next != '\r' && next != '\t') continue;
        if (kind == "audio")
            flags.audio = true;
        else if (kind == "video")
            flags.video = true;
    }
    return flags;
}

namespace {

// The lines of a description, a trailing '\r' dropped (any line ending is taken).
template <typename Fn>
void forEachLine(const std::string& text, Fn fn) {
    size_t pos = 0;
    while (pos < text.size()) {
        size_t eol = text.find('\n', pos);
        size_t end = eol == std::string::npos ? text.size() : eol;
        size_t len = end - pos;
        if (len && text[end - 1] == '\r') --len;
        if (!fn(text.substr(pos, len))) return;
        pos = end + 1;
    }
}

}  // namespace

bool sdpPlainRtp(const std::string& sdp) {
    int plain = 0, other = 0;
    forEachLine(sdp, [&](const std::string& line) {
        if (!startsWithNoCase(line, "m=audio ") && !startsWithNoCase(line, "m=video ")) return true;
        // m=<kind> <port> <protocol> <formats>
        size_t protoAt = line.find_first_not_of(' ', line.find(' ', line.find(' ') + 1));
        std::string proto = protoAt == std::string::npos
                                ? std::string()
                                : line.substr(protoAt, line.find(' ', protoAt) - protoAt);
        if (strcasecmp(proto.c_str(), "RTP/AVP") == 0 || strcasecmp(proto.c_str(), "RTP/AVPF") == 0)
            ++plain;
        else
            ++other;
        return true;
    });
    return plain > 0 && other == 0;
}

std::string sdpIceUfrag(const std::string& sdp) {
    std::string ufrag;
    forEachLine(sdp, [&](const std::string& line) {
        if (!startsWithNoCase(line, "a=ice-ufrag:")) return true;
        ufrag = trim(line.substr(strlen("a=ice-ufrag:")));
        return ufrag.empty();
    });
    return ufrag;
}

std::string reasonText(const std::string& why) {
    std::string out;
    for (char c : why) {
        if (out.size() == kMaxReasonText) break;
        unsigned char u = static_cast<unsigned char>(c);
        out += u >= 0x80 ? '?' : isControl(c) ? ' ' : c == '"' ? '\'' : c == '\\' ? '/' : c;
    }
    out = trim(out);
    return out.empty() ? "not acceptable" : out;
}

std::string warningValue(const std::string& agent, const std::string& why) {
    return "399 " + agent + " \"" + reasonText(why) + "\"";
}

std::string reasonValue(int status, const std::string& why) {
    return "SIP ;cause=" + std::to_string(status) + " ;text=\"" + reasonText(why) + "\"";
}

namespace {

// RFC 4733 event codes.
constexpr int kDtmfStar = 10;
constexpr int kDtmfPound = 11;
constexpr int kDtmfA = 12;
constexpr int kDtmfLastEvent = 15;  // D

int dtmfCode(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c == '*') return kDtmfStar;
    if (c == '#') return kDtmfPound;
    c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    if (c >= 'A' && c <= 'D') return kDtmfA + (c - 'A');
    return -1;
}

}  // namespace

bool parseDtmfInfo(const std::string& contentType, const std::string& body, int* digit,
                   int* durationMs) {
    std::string type = lower(trim(contentType.substr(0, contentType.find(';'))));
    int d = -1, duration = 0;
    if (type == "application/dtmf-relay") {
        size_t pos = 0;
        while (pos < body.size()) {
            size_t eol = body.find('\n', pos);
            std::string line = trim(body.substr(pos, eol == std::string::npos ? eol : eol - pos));
            pos = eol == std::string::npos ? body.size() : eol + 1;
            size_t eq = line.find('=');
            if (eq == std::string::npos) continue;
            std::string key = lower(trim(line.substr(0, eq)));
            std::string value = trim(line.substr(eq + 1));
            long number = 0;
            if (key == "signal" && value.size() == 1)
                d = dtmfCode(value[0]);
            else if (key == "signal")  // an event code, as some phones send "10" for '*'
                d = wholeNumber(value, kDtmfLastEvent, &number) ? static_cast<int>(number) : -1;
            else if (key == "duration")  // "160", "160 ms"; anything unreadable is unknown (0)
                duration = leadingNumber(value, INT_MAX, &number) ? static_cast<int>(number) : 0;
        }
    } else if (type == "application/dtmf") {
        std::string value = trim(body);
        if (value.size() == 1) d = dtmfCode(value[0]);
    } else {
        return false;
    }
    if (d < 0) return false;
    *digit = d;
    *durationMs = duration;
    return true;
}

std::string headerSafe(const char* value) {
    std::string out;
    for (const char* p = value ? value : ""; *p; ++p)
        if (!isControl(*p) || *p == '\t') out += *p;
    return trim(out);
}

std::string quotedDisplayName(const char* display) {
    std::string out = "\"";
    for (char c : headerSafe(display)) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

std::string unquoteDisplayName(const char* display) {
    std::string s = trim(display ? display : "");
    if (s.size() < 2 || s.front() != '"' || s.back() != '"') return s;
    std::string out;
    for (size_t i = 1; i + 1 < s.size(); ++i) {
        if (s[i] == '\\' && i + 2 < s.size()) ++i;
        out += s[i];
    }
    return out;
}

}  // namespace sipengine
