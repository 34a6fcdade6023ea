#include "options.h"

#include <cstdlib>
#include <fstream>
#include <functional>

namespace {

// One option: its name, the name of its value (null for a flag), its help, and what
// it does to the options. A false return leaves `error` saying why.
struct Option {
    const char* name;
    const char* value;
    const char* help;
    std::function<bool(Options&, const std::string& value, std::string& error)> apply;
};

using Apply = std::function<bool(Options&, const std::string&, std::string&)>;

Apply text(std::string Options::*field) {
    return [field](Options& o, const std::string& v, std::string&) {
        o.*field = v;
        return true;
    };
}

Apply flag(bool Options::*field) {
    return [field](Options& o, const std::string&, std::string&) {
        o.*field = true;
        return true;
    };
}

// A whole decimal number in lo..hi.
Apply number(int Options::*field, int lo, int hi, const char* unit) {
    return [=](Options& o, const std::string& v, std::string& error) {
        char* end = nullptr;
        long n = std::strtol(v.c_str(), &end, 10);
        if (v.empty() || *end || n < lo || n > hi) {
            error = "must be " + std::to_string(lo) + ".." + std::to_string(hi) + unit;
            return false;
        }
        o.*field = int(n);
        return true;
    };
}

// The whole first line, as it is: spaces, quotes and colons belong to the password.
bool readPasswordFile(Options& o, const std::string& path, std::string& error) {
    std::ifstream in(path);
    if (!in || !std::getline(in, o.password)) {
        error = "cannot read a password from " + path;
        return false;
    }
    if (!o.password.empty() && o.password.back() == '\r') o.password.pop_back();
    o.passwordGiven = true;
    return true;
}

bool forwardTargets(Options& o, const std::string& v, std::string& error) {
    size_t start = 0;
    while (start <= v.size()) {
        size_t comma = v.find(',', start);
        std::string item =
            v.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        if (!item.empty()) o.forward.push_back(item);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    if (o.forward.empty()) error = "needs at least one URI";
    return !o.forward.empty();
}

const Option kOptions[] = {
    {"--registrar", "ADDR", "the SIP server: HOST[:PORT] for TCP, sips:HOST[:PORT] for TLS",
     text(&Options::registrar)},
    {"--user", "NAME", "the account's user name", text(&Options::user)},
    {"--password-file", "F",
     "read the password from the first line of F; without it and --password, from the "
     "environment's ZARNRTC_PASSWORD",
     readPasswordFile},
    {"--password", "PASS", "the password (shows it to every local user in ps)",
     [](Options& o, const std::string& v, std::string&) {
         o.password = v;
         o.passwordGiven = true;
         return true;
     }},
    {"--display-name", "NAME", "the name the far end shows", text(&Options::displayName)},
    {"--call", "URI", "place one call and hang up after --duration seconds",
     text(&Options::callUri)},
    {"--forward", "URIS", "ring every URI (comma-separated) at once; the first to answer wins",
     forwardTargets},
    {"--auto-answer", nullptr,
     "answer calls, one after the other; each ends when the far end hangs up (at the latest "
     "--duration + 15 s after answering)",
     flag(&Options::autoAnswer)},
    {"--calls", "N", "with --auto-answer: stop after N calls (default: serve until stopped)",
     number(&Options::maxCalls, 1, 1000000, "")},
    {"--duration", "S", "seconds of conversation (default 10)",
     number(&Options::durationS, 1, 86400, " seconds")},
    {"--answer-delay", "MS", "with --auto-answer: ring this long before answering",
     number(&Options::answerDelayMs, 0, 60000, " ms")},
    {"--expect-cancel", nullptr,
     "with --auto-answer: success is a call cancelled while ringing (the losing monitor of a "
     "forwarded call)",
     flag(&Options::expectCancel)},
    {"--snapshot-dir", "DIR", "write the first and last local and remote frame as PNG",
     text(&Options::snapshotDir)},
    {"--quiet", nullptr, "only the summaries and errors", flag(&Options::quiet)},
    {"--json", nullptr, "the closing summary as one line of JSON", flag(&Options::json)},
};

// The environment the phone reads: only where no option gave the value.
struct Variable {
    const char* name;
    const char* help;
    std::function<void(Options&, const char* value)> apply;
};

const Variable kEnvironment[] = {
    {"ZARNRTC_PASSWORD", "the password, when neither --password-file nor --password is given",
     [](Options& o, const char* v) {
         if (!o.passwordGiven) o.password = v;
     }},
};

}  // namespace

void usage(FILE* out) {
    std::fprintf(out,
                 "usage: zarnrtc-phone --registrar ADDR --user NAME [--password-file F]\n"
                 "                     (--call URI | --forward URIS | --auto-answer) [options]\n");
    for (const Option& opt : kOptions) {
        std::string head = std::string(opt.name) + (opt.value ? std::string(" ") + opt.value : "");
        std::fprintf(out, "  %-20s %s\n", head.c_str(), opt.help);
    }
    std::fprintf(out, "environment:\n");
    for (const Variable& var : kEnvironment) std::fprintf(out, "  %-20s %s\n", var.name, var.help);
}

bool parse(int argc, char** argv, Options& o, std::string& error) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            usage(stdout);
            std::exit(0);
        }
        const Option* opt = nullptr;
        for (const Option& candidate : kOptions)
            if (a == candidate.name) opt = &candidate;
        if (!opt) {
            error = "unknown option " + a;
            return false;
        }
        std::string value;
        if (opt->value) {
            if (i + 1 >= argc) {
                error = "missing value for " + a;
                return false;
            }
            value = argv[++i];
        }
        if (!opt->apply(o, value, error)) {
            error = a + ": " + error;
            return false;
        }
    }
    if (o.registrar.empty() || o.user.empty()) {
        error = "--registrar and --user are required";
        return false;
    }
    for (const Variable& var : kEnvironment) {
        if (const char* v = std::getenv(var.name)) var.apply(o, v);
    }
    int modes = (o.callUri.empty() ? 0 : 1) + (o.forward.empty() ? 0 : 1) + (o.autoAnswer ? 1 : 0);
    if (modes != 1) {
        error = "give exactly one of --call, --forward, --auto-answer";
        return false;
    }
    return true;
}
