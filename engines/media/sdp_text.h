// Small text helpers shared by the description model and the negotiation. Every one
// is bounded by its input and never throws.
#ifndef ZARNRTC_MEDIA_SDP_TEXT_H
#define ZARNRTC_MEDIA_SDP_TEXT_H

#include <cstdint>
#include <string>
#include <vector>

namespace libwebrtc {
namespace media {
namespace sdp {
namespace text {

// Words separated by blanks (space, tab); at most `max` of them, the rest ignored.
std::vector<std::string> Words(const std::string& s, size_t max);
// Digits only (no sign, no blanks), at most 10 of them, within [lo, hi].
bool ToNumber(const std::string& s, uint64_t lo, uint64_t hi, uint64_t* out);
bool ToInt(const std::string& s, int lo, int hi, int* out);
bool EqualNoCase(const std::string& a, const char* b);
std::string Lower(std::string s);
std::string Upper(std::string s);
// Leading and trailing blanks removed.
std::string Trim(const std::string& s);
// Whether `s` is an IPv4 or IPv6 address literal (no host names).
bool IsAddressLiteral(const std::string& s);
// A reason fit for a SIP Warning header: printable ASCII without quotes or
// backslashes, under 100 bytes.
std::string Reason(const std::string& s);

}  // namespace text
}  // namespace sdp
}  // namespace media
}  // namespace libwebrtc

#endif
