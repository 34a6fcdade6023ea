// The private network namespace bench_lossy runs in, and nftables' loss in it.
#ifndef ZARNRTC_BENCH_LOSSY_NET_H
#define ZARNRTC_BENCH_LOSSY_NET_H

#include <string>

namespace bench {

std::string readFile(const std::string& path);
// Output of a shell command (nft, chromium --version).
std::string capture(const std::string& command);

// Why this process must not make loss here (the machine's namespace, a device other
// than loopback, not root); empty when it may.
std::string notPrivate();
// Drops `percent` of every UDP datagram that arrives, counting all and the dropped.
bool setLoss(double percent);

struct Datagrams {
    long seen = -1, dropped = 0;
};
// UDP datagrams seen and dropped since the last call (the counters are reset).
Datagrams takeCounters();
// "4.9 % of 3120"
std::string lossText(const Datagrams& d);

}  // namespace bench

#endif
