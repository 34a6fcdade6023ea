#include "log.h"

#include <cstdarg>
#include <cstdio>

#include "sip_settings.h"

namespace sipengine {

namespace {

void vlog(const char* fmt, va_list ap) {
    char line[1024];
    vsnprintf(line, sizeof line, fmt, ap);
    fprintf(stderr, "[sipengine] %s\n", line);
}

}  // namespace

int logLevel() {
    static const int level = zarnrtc::settings::sipSettings().logLevel;
    return level;
}

void logError(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vlog(fmt, ap);
    va_end(ap);
}

void logTrace(const char* fmt, ...) {
    if (logLevel() < 1) return;
    va_list ap;
    va_start(ap, fmt);
    vlog(fmt, ap);
    va_end(ap);
}

}  // namespace sipengine
