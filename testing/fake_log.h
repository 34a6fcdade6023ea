#ifndef ZARNRTC_TESTING_FAKE_LOG_H
#define ZARNRTC_TESTING_FAKE_LOG_H

#include <string>
#include <vector>

#include "null_text.h"  // fake::text: null texts in log entries are written as "null"

#define ZARNRTC_FAKE_API __attribute__((visibility("default")))

namespace zarnrtc {
namespace fake {

// One ordered log of every operation the fake engines were asked for, e.g.
// "MakeRegister(alice,alice,secret,10.0.0.1,10.0.0.1,TCP,600,Alice,false)".
// Thread safe.
ZARNRTC_FAKE_API void logAppend(const std::string& entry);
ZARNRTC_FAKE_API std::vector<std::string> logEntries();
ZARNRTC_FAKE_API void logClear();
// Entries that start with prefix, in order.
ZARNRTC_FAKE_API std::vector<std::string> logMatching(const std::string& prefix);

// Counted media objects of the fake media engine alive right now.
ZARNRTC_FAKE_API int liveObjects();
ZARNRTC_FAKE_API void liveObjectAdded();
ZARNRTC_FAKE_API void liveObjectRemoved();

}  // namespace fake
}  // namespace zarnrtc

#endif
