#include "phones.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

extern char** environ;

namespace bench {

bool PhoneProcess::start(const PhoneConfig& config) {
    config_ = config;
    exitCode_ = 0;
    std::vector<std::string> args = {config.program, "--registrar",    config.registrar,  "--user",
                                     config.user,    "--display-name", config.displayName};
    if (!config.callUri.empty()) {
        args.insert(args.end(),
                    {"--call", config.callUri, "--duration", std::to_string(config.durationS)});
    } else {
        args.push_back("--auto-answer");
    }
    if (config.answerDelayMs > 0) {
        args.push_back("--answer-delay");
        args.push_back(std::to_string(config.answerDelayMs));
    }
    if (config.expectCancel) args.push_back("--expect-cancel");
    // The password goes through the environment, never the command line (ps); so do
    // the phone's engines' settings: loopback only, and no sound card unless one
    // was asked for.
    std::vector<std::string> env = {"ZARNRTC_PASSWORD=" + config.password,
                                    "ZARNRTC_SIP_BIND=127.0.0.1",
                                    "ZARNRTC_MEDIA_ADDRESSES=127.0.0.1"};
    const char* audio = std::getenv("ZARNRTC_AUDIO_OUTPUT");
    env.push_back(std::string("ZARNRTC_AUDIO_OUTPUT=") + (audio && *audio ? audio : "none"));
    for (const std::string& e : config.env) {
        const std::string name = e.substr(0, e.find('=') + 1);
        env.erase(std::remove_if(env.begin(), env.end(),
                                 [&](const std::string& x) { return x.rfind(name, 0) == 0; }),
                  env.end());
        env.push_back(e);
    }
    auto ours = [&env](const char* entry) {
        for (const std::string& e : env)
            if (std::strncmp(entry, e.c_str(), e.find('=') + 1) == 0) return true;
        return false;
    };
    for (char** e = environ; *e; ++e)
        if (!ours(*e)) env.push_back(*e);

    // Everything the child touches is built before fork.
    std::vector<char*> argv, envp;
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    for (auto& e : env) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    const pid_t parent = getpid();

    pid_t pid = fork();
    if (pid < 0) return false;
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        int fd = open(config.logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
        }
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    pid_ = pid;
    return true;
}

bool PhoneProcess::running() {
    if (pid_ <= 0) return false;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
        reaped(status);
        return false;
    }
    return true;
}

void PhoneProcess::reaped(int status) {
    pid_ = -1;
    exitCode_ = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

void PhoneProcess::stop() {
    if (!running()) return;
    kill(pid_, SIGTERM);
    for (int i = 0; i < 300; ++i) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            reaped(status);
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    reaped(status);
}

std::string PhoneProcess::log() const {
    std::ifstream in(config_.logPath);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

int PhoneProcess::logCount(const char* text) const {
    const std::string all = log();
    int n = 0;
    for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) ++n;
    return n;
}

long PhoneProcess::lastRemoteFps() const {
    const std::string text = log();
    const char* key = "fps local ";
    size_t at = text.rfind(key);
    if (at == std::string::npos) return -1;
    long local = -1, remote = -1;
    if (std::sscanf(text.c_str() + at, "fps local %ld, remote %ld", &local, &remote) != 2)
        return -1;
    return remote;
}

}  // namespace bench
