// What the engine link (engines/link) reads: the set-up timeline both engines mark.
#ifndef ZARNRTC_ENGINES_LINK_SETTINGS_H
#define ZARNRTC_ENGINES_LINK_SETTINGS_H

#include "settings.h"

namespace zarnrtc {
namespace settings {

enum class Timeline { kOff, kPrint, kKeep };

struct LinkSettings {
    // kPrint writes each mark to stderr as it happens, kKeep keeps them for
    // zarn_timeline_drain. Read once per process, at the first mark.
    Timeline timeline = Timeline::kOff;
};

inline const SettingTable<LinkSettings>& linkSettingTable() {
    using L = LinkSettings;
    static const SettingTable<L> table = {
        word("ZARNRTC_TIMELINE", &L::timeline,
             {{"0", Timeline::kOff},
              {"off", Timeline::kOff},
              {"1", Timeline::kPrint},
              {"on", Timeline::kPrint},
              {"yes", Timeline::kPrint},
              {"true", Timeline::kPrint},
              {"stderr", Timeline::kPrint},
              {"keep", Timeline::kKeep}}),
    };
    return table;
}

// As sipSettings()/useSipSettings() (sip_settings.h), for the link record.
ZARN_SETTINGS_API LinkSettings linkSettings();
ZARN_SETTINGS_API LinkSettings useLinkSettings(LinkSettings next);

}  // namespace settings
}  // namespace zarnrtc

#endif
