// Far ends as processes of their own (examples/zarnrtc-phone, serving with
// --auto-answer), so that what the benchmark measures in its own process is the door
// alone. Each phone writes its timeline to a log file the benchmark reads.
#ifndef ZARNRTC_BENCH_LOAD_PHONES_H
#define ZARNRTC_BENCH_LOAD_PHONES_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

struct PhoneConfig {
    std::string program;    // path of zarnrtc-phone
    std::string registrar;  // "127.0.0.1:PORT"
    std::string user, password, displayName;
    int answerDelayMs = 0;
    bool expectCancel = false;
    std::string logPath;
    // A door instead of a monitor: places one call to this URI and hangs up after
    // durationS seconds of conversation.
    std::string callUri;
    int durationS = 10;
    // More NAME=value entries for the phone's environment (over the inherited ones).
    std::vector<std::string> env;
};

class PhoneProcess {
  public:
    PhoneProcess() = default;
    PhoneProcess(const PhoneProcess&) = delete;
    PhoneProcess& operator=(const PhoneProcess&) = delete;
    ~PhoneProcess() { stop(); }

    // Forks and executes the phone; it dies with this process (PR_SET_PDEATHSIG).
    bool start(const PhoneConfig& config);
    // SIGTERM (the phone's normal way to stop serving), SIGKILL after 3 s.
    void stop();
    bool running();
    pid_t pid() const { return pid_; }
    // How it ended, once running() said false: its exit status, or -signal when a
    // signal killed it; 0 before that.
    int exitCode() const { return exitCode_; }
    const PhoneConfig& config() const { return config_; }

    std::string log() const;
    bool logHas(const char* text) const { return log().find(text) != std::string::npos; }
    int logCount(const char* text) const;
    // The ends of calls it answered, and of calls cancelled while ringing. A call the
    // door hangs up itself is reported to the door by no event: the far end tells.
    // Each call's own summary line ("call N summary: ..."; README lists them).
    int answeredEnds() const { return logCount(" summary: the far end hung up"); }
    int cancelledEnds() const { return logCount(" summary: cancelled while ringing"); }
    int incomingCalls() const { return logCount("incoming call"); }
    // Frames per second the phone received, from its last "fps local L, remote R"
    // line; -1 when there is none.
    long lastRemoteFps() const;

  private:
    void reaped(int status);
    PhoneConfig config_;
    pid_t pid_ = -1;
    int exitCode_ = 0;
};

}  // namespace bench

#endif
