// What the host media engine reads from its installation (docs/settings.md has the
// same rows for people). A new setting is one field with its comment here, one row
// in the table below, and one row in docs/settings.md.
#ifndef ZARNRTC_ENGINES_MEDIA_SETTINGS_H
#define ZARNRTC_ENGINES_MEDIA_SETTINGS_H

#include <string>
#include <vector>

#include "settings.h"

namespace zarnrtc {
namespace settings {

enum class AudioOutput { kProbe, kNone, kDevice };
enum class AudioInput { kTone, kDevice, kClicks };

struct MediaSettings {
    // Seconds with nothing from a far end that says it sends before its call is
    // lost. 1..3600. Read when each session's liveness watch starts.
    int deadPeerS = 8;
    // Addresses offered as host candidates; empty: every usable interface. IP
    // literals. Items that are not addresses are dropped, and with none left media
    // stays on loopback. Read when each session makes its ICE agent.
    std::vector<std::string> addresses;
    // Where remote audio goes: kProbe plays it when a sound server or an ALSA
    // playback node is found, kNone drops it, kDevice always plays it. Read at each
    // call's receive branch.
    AudioOutput audioOutput = AudioOutput::kProbe;
    // What is sent as audio: a test tone, the default capture device, or silence with
    // a click every half second of the monotonic clock (benchmarks measure the
    // latency with it). Read at each call's send branch.
    AudioInput audioInput = AudioInput::kTone;
    // The stand-in camera's picture (a videotestsrc pattern name, or "stamp": frame
    // number and capture time drawn in, for benchmarks). Read when each capturer is
    // made.
    std::string testPattern = "ball";
    // Media only in DTLS-SRTP: offers are made in DTLS-SRTP whatever the SDK's
    // configuration asks for, and plain RTP offers and answers are refused with their
    // reason on the wire. Read at each offer and answer.
    bool requireEncryption = false;
    // Video codecs, in the order this end prefers to send them: H264 and VP8 (both
    // are always received). Read at each offer and answer.
    std::vector<std::string> videoCodecs{"H264", "VP8"};
    // The system's sound-server hints, probed when audioOutput is kProbe.
    std::string pulseServer;
    std::string runtimeDir;
};

inline bool isVideoCodec(const std::string& name) {
    return name == "H264" || name == "VP8";
}

inline const SettingTable<MediaSettings>& mediaSettingTable() {
    using M = MediaSettings;
    static const SettingTable<M> table = {
        seconds("ZARNRTC_MEDIA_DEAD_PEER_S", &M::deadPeerS, 1, 3600),
        list("ZARNRTC_MEDIA_ADDRESSES", &M::addresses, isAddress,
             "comma-separated IPv4/IPv6 addresses", std::vector<std::string>{"127.0.0.1"}),
        word("ZARNRTC_AUDIO_OUTPUT", &M::audioOutput,
             {{"auto", AudioOutput::kProbe},
              {"none", AudioOutput::kNone},
              {"device", AudioOutput::kDevice}}),
        word("ZARNRTC_AUDIO_INPUT", &M::audioInput,
             {{"tone", AudioInput::kTone},
              {"device", AudioInput::kDevice},
              {"clicks", AudioInput::kClicks}}),
        word("ZARNRTC_TEST_PATTERN", &M::testPattern,
             {{"ball", std::string("ball")},
              {"stamp", std::string("stamp")},
              {"smpte", std::string("smpte")},
              {"snow", std::string("snow")},
              {"pinwheel", std::string("pinwheel")},
              {"spokes", std::string("spokes")},
              {"gradient", std::string("gradient")},
              {"colors", std::string("colors")},
              {"checkers-8", std::string("checkers-8")},
              {"circular", std::string("circular")}}),
        boolean("ZARNRTC_MEDIA_REQUIRE_ENCRYPTION", &M::requireEncryption),
        list("ZARNRTC_MEDIA_VIDEO_CODECS", &M::videoCodecs, isVideoCodec,
             "H264 and VP8, comma-separated, the preferred first"),
        systemVariable("PULSE_SERVER", &M::pulseServer),
        systemVariable("XDG_RUNTIME_DIR", &M::runtimeDir),
    };
    return table;
}

// As sipSettings()/useSipSettings() (sip_settings.h), for the media record.
ZARN_SETTINGS_API MediaSettings mediaSettings();
ZARN_SETTINGS_API MediaSettings useMediaSettings(MediaSettings next);

}  // namespace settings
}  // namespace zarnrtc

#endif
