// Engine diagnostics on stderr. ZARNRTC_SIP_LOG=1 adds engine events and the SIP wire
// trace; 2..9 also sofia-sip's own debug output at that level. Errors always print.
#ifndef ZARNRTC_ENGINES_SIP_LOG_H
#define ZARNRTC_ENGINES_SIP_LOG_H

#include "engine_link.h"

namespace sipengine {

// A set-up step of a call on the opt-in timeline (engine_link.h).
inline void timelineMark(int callId, const char* event) {
    if (zarn_timeline_on()) zarn_timeline_mark(static_cast<unsigned long>(callId), event);
}

int logLevel();
void logError(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void logTrace(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace sipengine

#endif
