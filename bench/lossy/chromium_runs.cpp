#include "chromium_runs.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <sstream>
#include <thread>

#include "lossy_figures.h"

namespace bench {

std::vector<ChromiumRun> runChromium(const std::string& script, int seconds, const std::string& log,
                                     std::string* version, Datagrams* udp) {
    const char* codecs[] = {"H264", "VP8"};
    std::vector<ChromiumRun> runs;
    takeCounters();
    std::vector<std::string> args = {"node",     script,    "--seconds", std::to_string(seconds),
                                     "--codecs", "H264,VP8"};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);  // node closes its Chromium on SIGTERM
        if (getppid() != parent) _exit(127);
        FILE* out = std::fopen(log.c_str(), "w");
        if (out) {
            dup2(fileno(out), 1);
            dup2(fileno(out), 2);
        }
        execvp("node", argv.data());
        _exit(127);
    }
    int status = 0;
    bool done = pid < 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2 * seconds + 90);
    while (!done && std::chrono::steady_clock::now() < deadline) {
        if (waitpid(pid, &status, WNOHANG) == pid)
            done = true;
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (!done) {
        kill(pid, SIGTERM);
        for (int i = 0; i < 100 && !done; ++i) {
            if (waitpid(pid, &status, WNOHANG) == pid)
                done = true;
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (!done) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
    }
    *udp = takeCounters();
    const std::string text = readFile(log);
    std::istringstream lines(text);
    std::string line;
    std::map<std::string, std::map<std::string, std::string>> byCodec;
    while (std::getline(lines, line)) {
        if (line.rfind("CHROMIUM ", 0) == 0) *version = line.substr(9);
        auto r = bench::ParseResult(line);
        if (r.count("codec")) byCodec[r["codec"]] = r;
    }
    for (const char* c : codecs) {
        ChromiumRun run;
        run.codec = c;
        auto it = byCodec.find(c);
        if (it == byCodec.end()) {
            run.why = pid < 0 ? "cannot start node" : "no figures (see " + log + ")";
        } else {
            run.f = it->second;
            run.ok = run.f["ok"] == "1";
            run.why = run.f.count("why") ? run.f["why"] : "";
        }
        runs.push_back(run);
    }
    return runs;
}

}  // namespace bench
