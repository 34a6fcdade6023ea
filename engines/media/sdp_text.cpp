#include "sdp_text.h"

#include <arpa/inet.h>
#include <strings.h>

namespace libwebrtc {
namespace media {
namespace sdp {
namespace text {

namespace {
bool Blank(char c) {
    return c == ' ' || c == '\t';
}
}  // namespace

std::vector<std::string> Words(const std::string& s, size_t max) {
    std::vector<std::string> words;
    size_t pos = 0;
    while (pos < s.size() && words.size() < max) {
        while (pos < s.size() && Blank(s[pos])) ++pos;
        size_t end = pos;
        while (end < s.size() && !Blank(s[end])) ++end;
        if (end > pos) words.push_back(s.substr(pos, end - pos));
        pos = end;
    }
    return words;
}

bool ToNumber(const std::string& s, uint64_t lo, uint64_t hi, uint64_t* out) {
    if (s.empty() || s.size() > 10) return false;
    uint64_t v = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + static_cast<uint64_t>(c - '0');
    }
    if (v < lo || v > hi) return false;
    *out = v;
    return true;
}

bool ToInt(const std::string& s, int lo, int hi, int* out) {
    uint64_t v = 0;
    if (lo < 0 || !ToNumber(s, static_cast<uint64_t>(lo), static_cast<uint64_t>(hi), &v))
        return false;
    *out = static_cast<int>(v);
    return true;
}

bool EqualNoCase(const std::string& a, const char* b) {
    return strcasecmp(a.c_str(), b) == 0;
}

std::string Lower(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

std::string Upper(std::string s) {
    for (char& c : s)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return s;
}

std::string Trim(const std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && Blank(s[b])) ++b;
    while (e > b && Blank(s[e - 1])) --e;
    return s.substr(b, e - b);
}

bool IsAddressLiteral(const std::string& s) {
    unsigned char buf[16];
    return inet_pton(AF_INET, s.c_str(), buf) == 1 || inet_pton(AF_INET6, s.c_str(), buf) == 1;
}

std::string Reason(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (out.size() >= 99) break;
        if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') out += c;
    }
    return out;
}

}  // namespace text
}  // namespace sdp
}  // namespace media
}  // namespace libwebrtc
