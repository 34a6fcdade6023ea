#include "sip_text.h"

#include <cctype>
#include <cstdlib>
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
    if (s.empty() || s[0] == ':') return {};
    // Only characters a host and port may hold.
    for (char c : s)
        if (!isalnum(static_cast<unsigned char>(c)) && !strchr(".-:[]_", c)) return {};
    return s;
}

std::string transportParam(const char* transport) {
    std::string t = lower(trim(transport ? transport : ""));
    if (t.empty() || t == "udp") return "udp";
    if (t == "tcp") return "tcp";
    return {};
}

std::string calleeUri(const char* callee, const std::string& domain) {
    if (!callee) return {};
    std::string s = trim(callee);
    if (!s.empty() && s.front() == '<' && s.back() == '>') s = s.substr(1, s.size() - 2);
    if (s.empty()) return {};
    for (char c : s)
        if (c == '\r' || c == '\n' || c == '<' || c == '>' || c == '"') return {};
    if (startsWithNoCase(s, "sip:") || startsWithNoCase(s, "sips:")) {
        return hostPortOf(s.c_str()).empty() ? std::string() : s;
    }
    if (s.find('@') != std::string::npos) {
        return hostPortOf(s.c_str()).empty() ? std::string() : "sip:" + s;
    }
    if (domain.empty() || s.find_first_of(" \t;:") != std::string::npos) return {};
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
        long port = strtol(line.c_str() + sp + 1, nullptr, 10);
        if (port == 0) continue;
        if (kind == "audio")
            flags.audio = true;
        else if (kind == "video")
            flags.video = true;
    }
    return flags;
}

namespace {

int dtmfCode(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c == '*') return 10;
    if (c == '#') return 11;
    c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    if (c >= 'A' && c <= 'D') return 12 + (c - 'A');
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
            if (key == "signal" && value.size() == 1)
                d = dtmfCode(value[0]);
            else if (key == "signal" && !value.empty() &&
                     isdigit(static_cast<unsigned char>(value[0])))
                d = atoi(value.c_str()) <= 15 ? atoi(value.c_str()) : -1;
            else if (key == "duration")
                duration = atoi(value.c_str());
        }
    } else if (type == "application/dtmf") {
        std::string value = trim(body);
        if (value.size() == 1) d = dtmfCode(value[0]);
    } else {
        return false;
    }
    if (d < 0) return false;
    *digit = d;
    *durationMs = duration > 0 ? duration : 0;
    return true;
}

std::string headerSafe(const char* value) {
    std::string out;
    for (const char* p = value ? value : ""; *p; ++p)
        if (*p != '\r' && *p != '\n') out += *p;
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
