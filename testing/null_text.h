// The one way test code writes a C text that may be null: logs, recorders and
// expected values all say "null".
#ifndef ZARNRTC_TESTING_NULL_TEXT_H
#define ZARNRTC_TESTING_NULL_TEXT_H

#include <string>

namespace zarnrtc {
namespace fake {

inline std::string text(const char* s) {
    return s ? std::string(s) : std::string("null");
}

}  // namespace fake
}  // namespace zarnrtc

#endif
