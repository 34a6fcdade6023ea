#include "trust.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>

namespace sipengine {

std::string canonicalAddress(const std::string& text) {
    char buf[INET6_ADDRSTRLEN] = {0};
    in_addr v4{};
    if (inet_pton(AF_INET, text.c_str(), &v4) == 1)
        return inet_ntop(AF_INET, &v4, buf, sizeof(buf)) ? buf : "";
    in6_addr v6{};
    if (inet_pton(AF_INET6, text.c_str(), &v6) != 1) return "";
    if (IN6_IS_ADDR_V4MAPPED(&v6)) {
        std::memcpy(&v4, &v6.s6_addr[12], sizeof(v4));
        return inet_ntop(AF_INET, &v4, buf, sizeof(buf)) ? buf : "";
    }
    return inet_ntop(AF_INET6, &v6, buf, sizeof(buf)) ? buf : "";
}

namespace {

std::string trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t");
    size_t e = s.find_last_not_of(" \t");
    return b == std::string::npos ? "" : s.substr(b, e - b + 1);
}

bool parsePort(const std::string& text, int* port) {
    if (text.empty() || text.size() > 5 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    *port = std::atoi(text.c_str());
    return *port > 0 && *port <= 65535;
}

// "a.b.c.d", "a.b.c.d:p", "[v6]", "[v6]:p" or a bare IPv6 address.
bool parseEndpoint(const std::string& entry, Endpoint* out) {
    std::string host = entry, port;
    if (!entry.empty() && entry.front() == '[') {
        size_t close = entry.find(']');
        if (close == std::string::npos) return false;
        host = entry.substr(1, close - 1);
        std::string rest = entry.substr(close + 1);
        if (!rest.empty() && (rest[0] != ':' || (port = rest.substr(1)).empty())) return false;
    } else if (entry.find(':') == entry.rfind(':') && entry.find(':') != std::string::npos) {
        host = entry.substr(0, entry.find(':'));
        port = entry.substr(entry.find(':') + 1);
        if (port.empty()) return false;
    }
    out->address = canonicalAddress(host);
    out->port = 0;
    return !out->address.empty() && (port.empty() || parsePort(port, &out->port));
}

}  // namespace

bool parseEndpointList(const std::string& text, std::vector<Endpoint>* out) {
    std::vector<Endpoint> result;
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        std::string entry = trim(
            text.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        Endpoint e;
        if (!entry.empty() && !parseEndpoint(entry, &e)) return false;
        if (!entry.empty()) result.push_back(e);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    *out = std::move(result);
    return true;
}

bool TrustFilter::isServer(const Endpoint& from) const {
    for (const auto& server : servers_)
        if (server.second == from) return true;
    return false;
}

bool TrustFilter::isAllowedPeer(const Endpoint& from) const {
    for (const Endpoint& peer : allowed_)
        if (peer.address == from.address && (peer.port == 0 || peer.port == from.port)) return true;
    return false;
}

TrustFilter::Verdict TrustFilter::check(const Endpoint& from, bool addressed,
                                        Clock::time_point now) {
    if ((addressed && isServer(from)) || isAllowedPeer(from)) return Verdict::kAccept;
    if (now - windowStart_ >= std::chrono::seconds(1)) {
        windowStart_ = now;
        refusedInWindow_ = 0;
    }
    // A flood is not worth a log line per packet.
    return ++refusedInWindow_ <= kRefusalsPerSecond ? Verdict::kRefuse : Verdict::kDrop;
}

}  // namespace sipengine
