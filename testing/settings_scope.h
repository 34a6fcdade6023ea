// Host engine settings for one test: an edited copy of the record in force is put in
// place, and the previous record is put back when the scope ends. The engines read
// their record when they need a value (docs/settings.md says when), so the edit
// reaches the next stack, session or call the test starts.
//
//   SettingsScope<SipSettings> loopback([](SipSettings& s) { s.bind = "127.0.0.1"; });
#ifndef ZARNRTC_TESTING_SETTINGS_SCOPE_H
#define ZARNRTC_TESTING_SETTINGS_SCOPE_H

#include <utility>

#include "link_settings.h"
#include "media_settings.h"
#include "sip_settings.h"

namespace zarnrtc {
namespace testing {

using settings::LinkSettings;
using settings::MediaSettings;
using settings::SipSettings;

inline SipSettings inForce(const SipSettings*) {
    return settings::sipSettings();
}
inline MediaSettings inForce(const MediaSettings*) {
    return settings::mediaSettings();
}
inline LinkSettings inForce(const LinkSettings*) {
    return settings::linkSettings();
}
inline SipSettings putInPlace(SipSettings next) {
    return settings::useSipSettings(std::move(next));
}
inline MediaSettings putInPlace(MediaSettings next) {
    return settings::useMediaSettings(std::move(next));
}
inline LinkSettings putInPlace(LinkSettings next) {
    return settings::useLinkSettings(std::move(next));
}

// The record in force, edited, for the rest of the process (a benchmark's set-up).
template <typename Record, typename Edit>
void editSettings(Edit edit) {
    Record next = inForce(static_cast<const Record*>(nullptr));
    edit(next);
    putInPlace(std::move(next));
}

// Every SIP stack this process starts from now on binds to loopback.
inline void bindSipToLoopback() {
    editSettings<SipSettings>([](SipSettings& s) { s.bind = "127.0.0.1"; });
}

template <typename Record>
class SettingsScope {
  public:
    template <typename Edit>
    explicit SettingsScope(Edit edit) {
        Record next = inForce(static_cast<const Record*>(nullptr));
        edit(next);
        saved_ = putInPlace(std::move(next));
    }
    ~SettingsScope() { putInPlace(std::move(saved_)); }
    SettingsScope(const SettingsScope&) = delete;
    SettingsScope& operator=(const SettingsScope&) = delete;

  private:
    Record saved_;
};

}  // namespace testing
}  // namespace zarnrtc

#endif
