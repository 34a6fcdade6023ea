// Who may start a conversation with this device. A request outside any dialog is
// accepted only from the SIP server an account registered with (the exact address
// and port its REGISTER answers came from) or from a peer the installation listed
// in ZARNRTC_SIP_ALLOW_PEERS; everything else is refused.
#ifndef ZARNRTC_ENGINES_SIP_TRUST_H
#define ZARNRTC_ENGINES_SIP_TRUST_H

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace sipengine {

// A transport address in canonical numeric form; port 0 in an allow-list entry
// means any port of that address.
struct Endpoint {
    std::string address;
    int port = 0;
    bool operator==(const Endpoint& o) const { return address == o.address && port == o.port; }
};

// "10.0.0.5, 10.0.0.6:5070, [fd00::1]:5060, fd00::2" -> endpoints. Returns false
// (and nothing) when any entry is not a numeric address with an optional port.
bool parseEndpointList(const std::string& text, std::vector<Endpoint>* out);

// Canonical text of a numeric IPv4/IPv6 address (IPv4-mapped IPv6 becomes IPv4);
// empty when `text` is not one.
std::string canonicalAddress(const std::string& text);

class TrustFilter {
  public:
    enum class Verdict { kAccept, kRefuse, kDrop };
    using Clock = std::chrono::steady_clock;
    static constexpr int kRefusalsPerSecond = 20;  // answered with 403; the rest dropped

    void setAllowedPeers(std::vector<Endpoint> peers) { allowed_ = std::move(peers); }
    // The server an account's registration answers came from; forgotten on unregister.
    void setServer(int accountId, const Endpoint& server) { servers_[accountId] = server; }
    void forgetServer(int accountId) { servers_.erase(accountId); }
    bool hasAllowedPeers() const { return !allowed_.empty(); }

    // `addressed` says whether the request names one of this device's accounts; a
    // server must address one, a listed peer (direct calls, no server) need not.
    // kDrop is a refusal past the rate: answered like the others, but not logged.
    Verdict check(const Endpoint& from, bool addressed, Clock::time_point now);

  private:
    bool isServer(const Endpoint& from) const;
    bool isAllowedPeer(const Endpoint& from) const;
    std::vector<Endpoint> allowed_;
    std::map<int, Endpoint> servers_;
    Clock::time_point windowStart_{};
    int refusedInWindow_ = 0;
};

}  // namespace sipengine

#endif
