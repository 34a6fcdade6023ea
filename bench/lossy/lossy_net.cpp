// nftables in bench_lossy's own network namespace: loss, and what it dropped.
#include "lossy_net.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "kamailio_server.h"

namespace bench {

namespace {
// The rules' counters when last read: nft cannot reset the counters of a rule, so
// takeCounters() returns the difference. setLoss() makes new rules, from 0.
Datagrams last_read{0, 0};
}  // namespace

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string capture(const std::string& command) {
    std::string out;
    if (FILE* p = popen(command.c_str(), "r")) {
        char buf[512];
        while (size_t n = fread(buf, 1, sizeof buf, p)) out.append(buf, n);
        pclose(p);
    }
    return out;
}

// Loss is made with nftables, so this must be a namespace of our own: one with
// loopback only, not the machine's.
std::string notPrivate() {
    if (geteuid() != 0) return "needs root (nftables)";
    char self[64] = {}, init[64] = {};
    if (readlink("/proc/self/ns/net", self, sizeof self - 1) > 0 &&
        readlink("/proc/1/ns/net", init, sizeof init - 1) > 0 && !std::strcmp(self, init))
        return "runs in the machine's network namespace; start it with bench/lossy/run.sh "
               "(unshare -n)";
    std::ifstream dev("/proc/net/dev");
    std::string line;
    for (int n = 0; std::getline(dev, line); ++n) {
        if (n < 2) continue;  // headers
        std::string name = line.substr(0, line.find(':'));
        name.erase(0, name.find_first_not_of(' '));
        if (name != "lo")
            return "the network namespace has a device other than loopback (" + name + ")";
    }
    return "";
}

bool setLoss(double percent) {
    siptest::runCommand("nft delete table inet lossy >/dev/null 2>&1");
    const int permille = int(std::lround(percent * 10));
    std::string rules =
        "nft add table inet lossy && "
        "nft add chain inet lossy in '{ type filter hook input priority 0; }' && "
        "nft add rule inet lossy in meta l4proto udp counter";
    if (permille > 0)
        rules += " && nft add rule inet lossy in meta l4proto udp numgen random mod 1000 '<' " +
                 std::to_string(permille) + " counter drop";
    last_read = Datagrams{0, 0};
    return siptest::runCommand(rules) == 0;
}

Datagrams takeCounters() {
    Datagrams now{0, 0};
    bool found = false;
    std::string text = capture("nft list chain inet lossy in 2>/dev/null");
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        size_t at = line.find("counter packets ");
        if (at == std::string::npos) continue;
        long n = std::atol(line.c_str() + at + 16);
        if (line.find("drop") != std::string::npos) {
            now.dropped = n;
        } else {
            now.seen = n;
            found = true;
        }
    }
    if (!found) return Datagrams{};
    Datagrams d{now.seen - last_read.seen, now.dropped - last_read.dropped};
    last_read = now;
    return d;
}

std::string lossText(const Datagrams& d) {
    if (d.seen <= 0) return "no UDP seen";
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.1f %% of %ld", 100.0 * d.dropped / d.seen, d.seen);
    return buf;
}

}  // namespace bench
