// The host engines' settings: what the loader takes, what it refuses and says, and
// where a value comes from. Cases are rows: a variable, its text in the environment
// and/or the settings file, and the value the record then holds as the table shows
// it ("default": the record's own, whatever that is).
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "link_settings.h"
#include "media_settings.h"
#include "settings.h"
#include "settings_scope.h"
#include "sip_settings.h"

namespace zs = zarnrtc::settings;

namespace {

const char* const kDefault = "default";

struct Row {
    const char* variable;
    const char* env;   // nullptr: not in the environment
    const char* file;  // nullptr: not in the file
    const char* shown;
    bool refused;
};

struct Loaded {
    std::string shown, byDefault;
    std::vector<std::string> said;  // the refusals reported
};

// Loads the record whose table has the row's variable: the field as the table shows
// it, loaded and by default.
template <typename Record>
bool loadRow(const zs::SettingTable<Record>& table, const Row& row, Loaded* out) {
    for (const zs::Setting<Record>& setting : table) {
        if (setting.variable != row.variable) continue;
        std::map<std::string, std::string> env, file;
        if (row.env) env[row.variable] = row.env;
        if (row.file) file[row.variable] = row.file;
        Record record = zs::load(table, zs::Source::fixed(env, file),
                                 [out](const std::string& line) { out->said.push_back(line); });
        out->shown = setting.show(record);
        out->byDefault = setting.show(Record{});
        return true;
    }
    return false;
}

TEST(Settings, EachValueIsTakenOrRefusedWithOneLineAndTheDefault) {
    const Row rows[] = {
        // Bounded seconds: the two parsers this replaced were these rules.
        {"ZARNRTC_MEDIA_DEAD_PEER_S", "12", nullptr, "12", false},
        {"ZARNRTC_MEDIA_DEAD_PEER_S", " 12 ", nullptr, "12", false},
        {"ZARNRTC_MEDIA_DEAD_PEER_S", "abc", nullptr, kDefault, true},
        {"ZARNRTC_MEDIA_DEAD_PEER_S", "-5", nullptr, kDefault, true},
        {"ZARNRTC_MEDIA_DEAD_PEER_S", "0", nullptr, kDefault, true},
        {"ZARNRTC_MEDIA_DEAD_PEER_S", "3601", nullptr, kDefault, true},
        {"ZARNRTC_MEDIA_DEAD_PEER_S", "8s", nullptr, kDefault, true},
        {"ZARNRTC_SIP_OUTGOING_RING_S", "99999999999999999999999", nullptr, kDefault, true},
        {"ZARNRTC_SIP_INCOMING_RING_S", "86400", nullptr, "86400", false},
        {"ZARNRTC_SIP_LOG", "10", nullptr, kDefault, true},
        // Words, any case; a word not in the list is refused.
        {"ZARNRTC_AUDIO_OUTPUT", "NONE", nullptr, "none", false},
        {"ZARNRTC_AUDIO_OUTPUT", "speaker", nullptr, kDefault, true},
        {"ZARNRTC_TEST_PATTERN", "smpte", nullptr, "smpte", false},
        {"ZARNRTC_TEST_PATTERN", "smpte; rm -rf", nullptr, kDefault, true},
        {"ZARNRTC_TIMELINE", "keep", nullptr, "keep", false},
        {"ZARNRTC_TIMELINE", "1", nullptr, "1", false},
        // Address lists: a bad item never widens what is offered.
        {"ZARNRTC_MEDIA_ADDRESSES", "127.0.0.1, ::1", nullptr, "127.0.0.1,::1", false},
        {"ZARNRTC_MEDIA_ADDRESSES", "10.0.0.7,eth0", nullptr, "10.0.0.7", true},
        {"ZARNRTC_MEDIA_ADDRESSES", "eth0", nullptr, "127.0.0.1", true},
        {"ZARNRTC_SIP_ALLOW_PEERS", "10.0.0.5, 10.0.0.6:5070, [fd00::1]:5060, fd00::2", nullptr,
         "10.0.0.5,10.0.0.6:5070,[fd00::1]:5060,fd00::2", false},
        {"ZARNRTC_SIP_ALLOW_PEERS", "10.0.0.5,10.0.0.6:99999", nullptr, kDefault, true},
        {"ZARNRTC_SIP_ALLOW_PEERS", "door.example", nullptr, kDefault, true},
        {"ZARNRTC_SIP_BIND", "[::1]", nullptr, "\"[::1]\"", false},
        {"ZARNRTC_SIP_BIND", "localhost", nullptr, kDefault, true},
        {"ZARNRTC_SIP_CA_FILE", "/etc/door/ca\n.pem", nullptr, kDefault, true},
        // Where it comes from: the environment over the file; empty counts as unset.
        {"ZARNRTC_SIP_LOG", nullptr, "3", "3", false},
        {"ZARNRTC_SIP_LOG", "2", "3", "2", false},
        {"ZARNRTC_SIP_LOG", "", "3", "3", false},
        {"ZARNRTC_SIP_LOG", nullptr, "x", kDefault, true},
        // The system's variables come from the environment only.
        {"TMPDIR", nullptr, "/var/tmp", kDefault, false},
        {"TMPDIR", "/var/tmp", nullptr, "\"/var/tmp\"", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.variable) + "=" + (row.env ? row.env : "(unset)") +
                     " file=" + (row.file ? row.file : "(unset)"));
        Loaded got;
        ASSERT_TRUE(loadRow(zs::sipSettingTable(), row, &got) ||
                    loadRow(zs::mediaSettingTable(), row, &got) ||
                    loadRow(zs::linkSettingTable(), row, &got))
            << "no table has it";
        EXPECT_EQ(got.shown, std::string(row.shown) == kDefault ? got.byDefault : row.shown);
        const std::vector<std::string>& said = got.said;
        ASSERT_EQ(said.size(), row.refused ? 1u : 0u);
        if (row.refused) {
            // Names the variable, what it accepts and what is used instead.
            EXPECT_EQ(said[0].rfind(std::string(row.variable) + "=", 0), 0u) << said[0];
            EXPECT_NE(said[0].find("accepted "), std::string::npos) << said[0];
            EXPECT_NE(said[0].find("; using "), std::string::npos) << said[0];
        }
    }
}

TEST(Settings, TheFileIsKeyValueLinesAndItsOtherLinesAreNamed) {
    std::vector<int> bad;
    auto values = zs::Source::parseFile(
        "# door 3\n\nZARNRTC_SIP_LOG = 1\nZARNRTC_SIP_BIND=10.0.0.2 \r\nnot a setting\n"
        "lower=1\n=5\nZARNRTC_TEST_PATTERN=a=b\n",
        &bad);
    EXPECT_EQ(values, (std::map<std::string, std::string>{{"ZARNRTC_SIP_LOG", "1"},
                                                          {"ZARNRTC_SIP_BIND", "10.0.0.2"},
                                                          {"ZARNRTC_TEST_PATTERN", "a=b"}}));
    EXPECT_EQ(bad, (std::vector<int>{5, 6, 7}));
}

// The process as a device runs it: a bad value in the environment and a file with
// a bad line. One line each on stderr, and the engines read the default.
TEST(Settings, AProcessWithBadValuesSaysSoOnceAndRunsWithTheDefaults) {
    char dir[] = "/tmp/zarnrtc-settings-XXXXXX";
    ASSERT_TRUE(mkdtemp(dir));
    const std::string file = std::string(dir) + "/device.conf";
    std::ofstream(file) << "ZARNRTC_SIP_OUTGOING_RING_S=30\nZARNRTC_SIP_INCOMING_RING_S=-1\nbad\n";
    int err[2];
    ASSERT_EQ(pipe(err), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        // The child's environment is what a device's would be.
        dup2(err[1], 2);
        setenv("ZARNRTC_MEDIA_DEAD_PEER_S", "abc", 1);
        setenv("ZARNRTC_SETTINGS_FILE", file.c_str(), 1);
        bool ok = zs::mediaSettings().deadPeerS == zs::MediaSettings{}.deadPeerS &&
                  zs::sipSettings().outgoingRingS == 30 &&
                  zs::sipSettings().incomingRingS == zs::SipSettings{}.incomingRingS &&
                  zs::mediaSettings().deadPeerS == zs::MediaSettings{}.deadPeerS;
        _exit(ok ? 0 : 1);
    }
    close(err[1]);
    std::string text;
    char buf[512];
    for (ssize_t n; (n = read(err[0], buf, sizeof buf)) > 0;) text.append(buf, size_t(n));
    close(err[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    unlink(file.c_str());
    rmdir(dir);
    printf("%s", text.c_str());
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "the records were not as expected";
    std::vector<std::string> lines;
    for (size_t at = 0, nl; (nl = text.find('\n', at)) != std::string::npos; at = nl + 1)
        lines.push_back(text.substr(at, nl - at));
    ASSERT_EQ(lines.size(), 3u) << text;
    auto said = [&](const std::string& part) {
        int n = 0;
        for (const std::string& l : lines) n += l.find(part) != std::string::npos;
        return n;
    };
    EXPECT_EQ(said("ZARNRTC_MEDIA_DEAD_PEER_S=\"abc\" (environment) is refused: accepted 1..3600"),
              1);
    EXPECT_EQ(said("ZARNRTC_SIP_INCOMING_RING_S=\"-1\" (" + file + ") is refused"), 1);
    EXPECT_EQ(said(file + ":3: not KEY=value"), 1);
}

// Readers on several threads while a test replaces the record: each reader sees a
// whole record, never a torn one (run under ThreadSanitizer by the test command).
TEST(Settings, ReplacingWhileEnginesReadIsSafe) {
    std::atomic<bool> stop{false};
    std::atomic<int> torn{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            while (!stop) {
                zs::SipSettings s = zs::sipSettings();
                if (s.outgoingRingS != s.incomingRingS || s.bind.size() != size_t(s.logLevel))
                    ++torn;
            }
        });
    }
    for (int i = 1; i <= 2000; ++i) {
        zarnrtc::testing::SettingsScope<zs::SipSettings> scope([i](zs::SipSettings& s) {
            s.outgoingRingS = s.incomingRingS = i;
            s.logLevel = i % 10;
            s.bind = std::string(size_t(i % 10), '1');
        });
    }
    stop = true;
    for (auto& t : readers) t.join();
    EXPECT_EQ(torn, 0);
}

}  // namespace
