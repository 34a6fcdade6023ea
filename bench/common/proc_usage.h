// What a process costs, read from /proc and getrusage: CPU time and resident memory.
// Every reader returns -1 when the figure cannot be read (the process is gone).
#ifndef ZARNRTC_BENCH_PROC_USAGE_H
#define ZARNRTC_BENCH_PROC_USAGE_H

#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace bench {

// utime + stime of every thread of `pid`, in seconds (clock-tick resolution).
inline double cpuSecondsOf(pid_t pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    FILE* f = std::fopen(path.c_str(), "r");
    if (!f) return -1;
    char buf[1024];
    size_t n = std::fread(buf, 1, sizeof buf - 1, f);
    std::fclose(f);
    buf[n] = 0;
    // The command name may hold spaces and parentheses: fields count from the last ')'.
    const char* p = std::strrchr(buf, ')');
    if (!p) return -1;
    unsigned long long utime = 0, stime = 0;
    // After ")": state (field 3) ... utime is field 14, stime field 15.
    if (std::sscanf(p + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &utime,
                    &stime) != 2)
        return -1;
    return double(utime + stime) / double(sysconf(_SC_CLK_TCK));
}

// This process's user + system time, all threads, at microsecond resolution.
inline double selfCpuSeconds() {
    rusage ru{};
    if (getrusage(RUSAGE_SELF, &ru) != 0) return -1;
    return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

// One "Name:   N kB" line of /proc/<pid>/status ("self" for this process).
inline long statusKb(const std::string& pid, const char* field) {
    const std::string path = "/proc/" + pid + "/status";
    FILE* f = std::fopen(path.c_str(), "r");
    if (!f) return -1;
    char line[256];
    long kb = -1;
    const size_t len = std::strlen(field);
    while (std::fgets(line, sizeof line, f)) {
        if (std::strncmp(line, field, len) == 0) {
            kb = std::strtol(line + len, nullptr, 10);
            break;
        }
    }
    std::fclose(f);
    return kb;
}

inline long selfRssKb() {
    return statusKb("self", "VmRSS:");
}
inline long selfPeakRssKb() {
    return statusKb("self", "VmHWM:");
}

// Starts a new peak (VmHWM) at the current resident size. False on kernels
// without it: the caller then samples VmRSS itself.
inline bool resetSelfPeakRss() {
    FILE* f = std::fopen("/proc/self/clear_refs", "w");
    if (!f) return false;
    bool ok = std::fputs("5", f) >= 0;
    ok = std::fclose(f) == 0 && ok;
    return ok;
}

}  // namespace bench

#endif
