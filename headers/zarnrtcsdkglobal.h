#ifndef ZARNRTC_ZARNRTCSDKGLOBAL_H
#define ZARNRTC_ZARNRTCSDKGLOBAL_H

// Symbols marked ZARNRTC_API are the library's exported interface; everything else
// is hidden (the library is built with -fvisibility=hidden).
#if defined(ZARNRTC_STATIC)
#define ZARNRTC_API
#else
#define ZARNRTC_API __attribute__((visibility("default")))
#endif

#endif
