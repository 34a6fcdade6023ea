// zarnrtc-phone: a command-line door station / indoor monitor built only on the
// SDK's public headers. It prints one timeline line per event, in milliseconds
// since start, a summary line for each call and one for the run; the exit status
// tells whether the calls reached the expected end (README lists the values).
#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "options.h"
#include "phone_app.h"

namespace {

std::atomic<bool> stopRequested{false};

bool usableDirectory(const std::string& dir) {
    mkdir(dir.c_str(), 0755);
    struct stat st;
    return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    std::string error;
    if (!parse(argc, argv, options, error)) {
        std::fprintf(stderr, "zarnrtc-phone: %s\n", error.c_str());
        usage(stderr);
        return kExitBadArguments;
    }
    if (!options.snapshotDir.empty() && !usableDirectory(options.snapshotDir)) {
        std::fprintf(stderr, "zarnrtc-phone: cannot use snapshot directory %s\n",
                     options.snapshotDir.c_str());
        return kExitBadArguments;
    }
    std::signal(SIGINT, [](int) { stopRequested = true; });
    std::signal(SIGTERM, [](int) { stopRequested = true; });

    // The engines may call the application until the process ends: never destroyed.
    auto* app = new PhoneApp(options);
    ExitStatus status = app->run(stopRequested);
    // The engine lives until the process ends by design; leave without unwinding it.
    std::_Exit(status);
}
