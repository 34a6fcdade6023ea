// Command-line options of zarnrtc-phone, and the one environment variable it reads
// (ZARNRTC_PASSWORD). Both are tables in options.cpp: adding an option is one row.
#ifndef ZARNRTC_EXAMPLES_PHONE_OPTIONS_H
#define ZARNRTC_EXAMPLES_PHONE_OPTIONS_H

#include <cstdio>
#include <string>
#include <vector>

struct Options {
    std::string registrar, user, password, displayName = "zarnrtc-phone";
    bool passwordGiven = false;  // on the command line: the environment's is not read
    std::string callUri;
    std::vector<std::string> forward;
    bool autoAnswer = false;
    int durationS = 10;
    int registerTimeoutS = 5;
    int answerTimeoutS = 15;
    std::string snapshotDir;
    bool quiet = false;
    bool json = false;
    int answerDelayMs = 0;
    bool expectCancel = false;
    int maxCalls = 0;  // --auto-answer: stop after this many calls; 0 = until stopped

    bool serving() const { return autoAnswer && maxCalls == 0; }
};

void usage(FILE* out);
// False with `error` set when the command line is not usable.
bool parse(int argc, char** argv, Options& o, std::string& error);

#endif
