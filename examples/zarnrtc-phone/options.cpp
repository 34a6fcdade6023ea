#include "options.h"

#include <cstdlib>
#include <fstream>

namespace {

// The whole first line, as it is: spaces, quotes and colons belong to the password.
bool readPasswordFile(const std::string& path, std::string& password, std::string& error) {
    std::ifstream in(path);
    if (!in || !std::getline(in, password)) {
        error = "cannot read a password from " + path;
        return false;
    }
    if (!password.empty() && password.back() == '\r') password.pop_back();
    return true;
}

}  // namespace

void usage(FILE* out) {
    std::fprintf(
        out,
        "usage: zarnrtc-phone --registrar HOST[:PORT] --user NAME\n"
        "                     [--password-file FILE | --password PASS]\n"
        "                     [--display-name NAME]\n"
        "                     (--call URI | --forward URI,URI,... | --auto-answer)\n"
        "                     [--duration S] [--snapshot-dir DIR] [--quiet]\n"
        "  --registrar ADDR    the SIP server: HOST[:PORT] for TCP, sips:HOST[:PORT] for TLS\n"
        "  --password-file F   read the password from the first line of F; without it\n"
        "                      and --password, from the environment's ZARNRTC_PASSWORD\n"
        "                      (--password shows it to every local user in ps)\n"
        "  --call URI          place one call and hang up after --duration seconds\n"
        "  --forward URIS      ring every URI at once; the first to answer wins\n"
        "  --auto-answer       answer a call; end when the far end hangs up (at the\n"
        "                      latest --duration + 15 s after answering)\n"
        "  --duration S        seconds of conversation (default 10)\n"
        "  --snapshot-dir DIR  write first/last local and remote frames as PNG\n"
        "  --quiet             only the summary and errors\n"
        "  --answer-delay MS   with --auto-answer: ring this long before answering\n"
        "  --expect-cancel     with --auto-answer: success is a call cancelled while\n"
        "                      ringing (the losing monitor of a forwarded call)\n");
}

bool parse(int argc, char** argv, Options& o, std::string& error) {
    bool passwordGiven = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) {
                error = "missing value for " + a;
                return false;
            }
            out = argv[++i];
            return true;
        };
        // A whole decimal number in [lo, hi], or `error` says the range.
        auto number = [&](int lo, int hi, const char* unit, int& out) {
            std::string text;
            if (!value(text)) return false;
            char* end = nullptr;
            long n = std::strtol(text.c_str(), &end, 10);
            if (text.empty() || *end || n < lo || n > hi) {
                error = a + " must be " + std::to_string(lo) + ".." + std::to_string(hi) + unit;
                return false;
            }
            out = int(n);
            return true;
        };
        std::string v;
        if (a == "--help" || a == "-h") {
            usage(stdout);
            std::exit(0);
        } else if (a == "--registrar") {
            if (!value(o.registrar)) return false;
        } else if (a == "--user") {
            if (!value(o.user)) return false;
        } else if (a == "--password") {
            if (!value(o.password)) return false;
            passwordGiven = true;
        } else if (a == "--password-file") {
            if (!value(v) || !readPasswordFile(v, o.password, error)) return false;
            passwordGiven = true;
        } else if (a == "--display-name") {
            if (!value(o.displayName)) return false;
        } else if (a == "--call") {
            if (!value(o.callUri)) return false;
        } else if (a == "--forward") {
            if (!value(v)) return false;
            size_t start = 0;
            while (start <= v.size()) {
                size_t comma = v.find(',', start);
                std::string item =
                    v.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
                if (!item.empty()) o.forward.push_back(item);
                if (comma == std::string::npos) break;
                start = comma + 1;
            }
            if (o.forward.empty()) {
                error = "--forward needs at least one URI";
                return false;
            }
        } else if (a == "--auto-answer") {
            o.autoAnswer = true;
        } else if (a == "--duration") {
            if (!number(1, 86400, " seconds", o.durationS)) return false;
        } else if (a == "--snapshot-dir") {
            if (!value(o.snapshotDir)) return false;
        } else if (a == "--quiet") {
            o.quiet = true;
        } else if (a == "--expect-cancel") {
            o.expectCancel = true;
        } else if (a == "--calls") {
            if (!number(1, 1000000, "", o.maxCalls)) return false;
        } else if (a == "--answer-delay") {
            if (!number(0, 60000, " ms", o.answerDelayMs)) return false;
        } else {
            error = "unknown option " + a;
            return false;
        }
    }
    if (o.registrar.empty() || o.user.empty()) {
        error = "--registrar and --user are required";
        return false;
    }
    if (!passwordGiven) {
        const char* env = std::getenv("ZARNRTC_PASSWORD");
        o.password = env ? env : "";
    }
    int modes = (o.callUri.empty() ? 0 : 1) + (o.forward.empty() ? 0 : 1) + (o.autoAnswer ? 1 : 0);
    if (modes != 1) {
        error = "give exactly one of --call, --forward, --auto-answer";
        return false;
    }
    return true;
}
