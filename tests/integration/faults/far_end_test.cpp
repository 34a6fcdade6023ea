// The door is another process (the command-line phone) calling a monitor made of
// the SDK over both host engines, through Kamailio. The door then fails the way a
// device in the field does, and the monitor must notice, end the call exactly once,
// and give back its threads and descriptors. Each case prints how long it took.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "app_events.h"
#include "kamailio_server.h"
#include "kept_engine.h"
#include "settings_scope.h"
#include "zarnrtcimpl.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

using zarnrtc_testing::eventually;

int Threads() {
    return siptest::countEntries("/proc/self/task");
}
int Descriptors() {
    return siptest::countEntries("/proc/self/fd");
}

// The door: the command-line phone calling the monitor for `seconds`.
// Its media offers `mediaAddress` only.
pid_t StartDoor(const siptest::KamailioServer& server, int seconds, const std::string& log,
                const std::string& mediaAddress = "127.0.0.1") {
    std::string callee = "sip:monitor@" + server.address();
    std::string duration = std::to_string(seconds);
    std::vector<std::string> args = {ZARNRTC_PHONE, "--registrar", server.address(), "--user",
                                     "door",        "--password",  "door123",        "--call",
                                     callee,        "--duration",  duration};
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    // The door is a process of its own: its environment is how it is configured.
    std::vector<std::string> env = {"ZARNRTC_SIP_BIND=127.0.0.1",
                                    "ZARNRTC_MEDIA_ADDRESSES=" + mediaAddress};
    std::vector<char*> envp;
    for (std::string& e : env) envp.push_back(&e[0]);
    for (char** e = environ; *e; ++e)
        if (strncmp(*e, "ZARNRTC_SIP_BIND=", 17) && strncmp(*e, "ZARNRTC_MEDIA_ADDRESSES=", 24))
            envp.push_back(*e);
    envp.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

int Reap(pid_t pid) {
    int status = 0;
    for (int i = 0; i < 500; ++i) {
        if (waitpid(pid, &status, WNOHANG) == pid) return status;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return status;
}

long long MsBetween(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(b - a).count();
}

}  // namespace

TEST(FarEnd, AStalledDoorIsKeptAndAKilledDoorIsDropped) {
    if (!siptest::KamailioServer::installed()) GTEST_SKIP() << "kamailio is not installed";
    zarnrtc::testing::bindSipToLoopback();
    zarnrtc::testing::editSettings<zarnrtc::testing::MediaSettings>(
        [](zarnrtc::testing::MediaSettings& s) { s.addresses = {"127.0.0.1"}; });
    siptest::KamailioServer server;
    ASSERT_TRUE(server.start());
    // Kept to the end of the process, like the engine that calls it.
    static zarnrtc_testing::AppEvents& monitor = *new zarnrtc_testing::AppEvents;
    monitor.answering = static_cast<zarnrtc::ZarnRtcImpl*>(zarnrtc_testing::keptEngine());
    monitor.answering->setZarnRtcEvent(&monitor);
    monitor.answering->registerAccount(server.address().c_str(), "monitor", "monitor123",
                                       "Monitor");
    ASSERT_TRUE(eventually([&] { return monitor.registered.load(); }, 10000));

    // A door that freezes for 5 s (overloaded, debugger, swapped out) comes back to a
    // call that is still up, and later ends it itself.
    pid_t door = StartDoor(server, 16, server.runDir() + "/door-stalled.log");
    ASSERT_GT(door, 0);
    ASSERT_TRUE(eventually([&] { return monitor.remote.frames > 10; }, 15000))
        << "no video from the door; see " << server.runDir();
    int first = monitor.incoming;
    kill(door, SIGSTOP);
    std::this_thread::sleep_for(std::chrono::seconds(5));
    kill(door, SIGCONT);
    Clock::time_point resumed = Clock::now();
    int before = monitor.remote.frames;
    EXPECT_TRUE(eventually([&] { return monitor.remote.frames > before + 10; }, 5000));
    printf("door stalled for 5 s: call kept, video back %lld ms after it resumed\n",
           MsBetween(resumed, Clock::now()));
    EXPECT_TRUE(monitor.reasons(first, zarnrtc::kHangup).empty())
        << "a door stalled for 5 s was dropped";
    EXPECT_TRUE(eventually([&] { return monitor.saw(first, zarnrtc::kHangup); }, 20000));
    EXPECT_EQ(monitor.reasons(first, zarnrtc::kHangup), std::vector<int>{200});
    Reap(door);

    // What a monitor holds between calls, once the first call's teardown is over.
    std::this_thread::sleep_for(std::chrono::seconds(2));
    int threads = Threads(), fds = Descriptors();

    // A door that dies (power cut, crash) says nothing: the monitor must notice.
    door = StartDoor(server, 120, server.runDir() + "/door-killed.log");
    ASSERT_GT(door, 0);
    ASSERT_TRUE(eventually([&] { return monitor.incoming != first; }, 10000));
    int second = monitor.incoming;
    int frames = monitor.remote.frames;
    ASSERT_TRUE(eventually([&] { return monitor.remote.frames > frames + 10; }, 15000));
    kill(door, SIGKILL);
    Clock::time_point killed = Clock::now();
    Reap(door);
    ASSERT_TRUE(eventually([&] { return monitor.saw(second, zarnrtc::kHangup); }, 20000))
        << "the call to a killed door never ended";
    long long noticed = MsBetween(killed, Clock::now());
    EXPECT_LT(noticed, 15000);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_EQ(monitor.reasons(second, zarnrtc::kHangup), std::vector<int>{408});
    EXPECT_TRUE(eventually([&] { return Threads() <= threads && Descriptors() <= fds; }, 10000))
        << "threads " << Threads() << " (were " << threads << "), descriptors " << Descriptors()
        << " (were " << fds << ")";
    printf(
        "door killed mid-call: the monitor ended the call after %lld ms (reason 408); "
        "threads %d/%d, descriptors %d/%d after it\n",
        noticed, Threads(), threads, Descriptors(), fds);

    // A door whose media can never meet the monitor's (IPv6 against IPv4): the call is
    // answered, no frame arrives, and the door must not call that a success.
    const std::string noVideoLog = server.runDir() + "/door-no-video.log";
    door = StartDoor(server, 4, noVideoLog, "::1");
    ASSERT_GT(door, 0);
    int status = Reap(door);
    std::ifstream in(noVideoLog);
    std::string said((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 5) << said;
    EXPECT_NE(said.find("summary: answered but no video arrived (exit 5)"), std::string::npos)
        << said;
}
