#ifndef ZARNRTC_NULLTEXT_H
#define ZARNRTC_NULLTEXT_H

#include <stdexcept>
#include <string>

namespace zarnrtc {

// A string built from a C text. A null text raises the same logic error on every
// standard library, so applications see one documented failure.
inline std::string textOf(const char* s) {
    if (!s) throw std::logic_error("basic_string::_M_construct null not valid");
    return std::string(s);
}

}  // namespace zarnrtc

#endif
