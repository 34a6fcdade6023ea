// The NUA stack of a UserAgent: made when the first account is registered, bound to
// the local address that reaches that account's server (not every interface), and
// speaking TLS only when the account asked for sips:. A TLS server's certificate is
// probed before the first REGISTER so that a bad one fails fast and says why.
#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdlib>

#include "log.h"
#include "sip_settings.h"
#include "tls_probe.h"
#include "user_agent.h"

namespace sipengine {

namespace {

constexpr int kDefaultSipPort = 5060;
constexpr int kDefaultSipsPort = 5061;
constexpr int kTlsProbeTimeoutMs = 4000;
constexpr char kSystemCaBundle[] = "/etc/ssl/certs/ca-certificates.crt";
// REFER, SUBSCRIBE, NOTIFY and PUBLISH are not offered: the stack answers them 405.
constexpr char kAllowedMethods[] =
    "INVITE, ACK, BYE, CANCEL, OPTIONS, PRACK, MESSAGE, INFO, UPDATE";
// Requests the stack would otherwise answer 200 on its own, before we can refuse them.
// UPDATE too: the stack would answer an offer in it without an answer.
constexpr char kOurMethods[] = "OPTIONS, MESSAGE, INFO, UPDATE";

// The local address the system routes through to reach host:port; empty if none.
std::string localAddressToward(const std::string& hostPort, int defaultPort) {
    std::string host;
    int port = 0;
    splitHostPort(hostPort, defaultPort, &host, &port);
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* list = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list) != 0) return "";
    std::string local;
    for (addrinfo* a = list; a && local.empty(); a = a->ai_next) {
        int fd = socket(a->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0) continue;
        sockaddr_storage ss{};
        socklen_t len = sizeof(ss);
        char buf[INET6_ADDRSTRLEN] = {0};
        // A connected UDP socket sends nothing: it only asks the routing table.
        if (connect(fd, a->ai_addr, a->ai_addrlen) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len) == 0) {
            const void* addr =
                ss.ss_family == AF_INET6
                    ? static_cast<const void*>(&reinterpret_cast<sockaddr_in6*>(&ss)->sin6_addr)
                    : static_cast<const void*>(&reinterpret_cast<sockaddr_in*>(&ss)->sin_addr);
            if (inet_ntop(ss.ss_family, addr, buf, sizeof(buf))) local = buf;
        }
        close(fd);
    }
    freeaddrinfo(list);
    return local;
}

// sofia-sip reads its trusted CAs as "cafile.pem" in a folder: one made for the
// moment the stack starts, removed right after.
std::string makeCaDir(const zarnrtc::settings::SipSettings& settings, std::string* why) {
    std::string file = settings.caFile;
    if (file.empty()) file = kSystemCaBundle;
    char resolved[PATH_MAX];
    if (!realpath(file.c_str(), resolved) || access(resolved, R_OK) != 0) {
        *why = "cannot read the CA certificates " + file + " (ZARNRTC_SIP_CA_FILE)";
        return "";
    }
    const std::string& tmp = settings.tempDir;
    std::string dir = (tmp.empty() ? "/tmp" : tmp) + "/zarnrtc-ca-XXXXXX";
    if (!mkdtemp(&dir[0]) || symlink(resolved, (dir + "/cafile.pem").c_str()) != 0) {
        *why = "cannot prepare the CA certificates for TLS";
        return "";
    }
    return dir;
}

// How a Warning names us: the address we listen on, or the machine's name when we
// listen everywhere (a token either way).
std::string warningAgent(const std::string& bind) {
    if (bind != "*") return bind;
    char name[256] = {0};
    std::string agent;
    if (gethostname(name, sizeof(name) - 1) == 0)
        for (const char* p = name; *p; ++p)
            if (isalnum(static_cast<unsigned char>(*p)) || *p == '.' || *p == '-') agent += *p;
    return agent.empty() ? "zarnrtc" : agent;
}

void removeCaDir(const std::string& dir) {
    if (dir.empty()) return;
    unlink((dir + "/cafile.pem").c_str());
    rmdir(dir.c_str());
}

}  // namespace

void splitHostPort(const std::string& hostPort, int defaultPort, std::string* host, int* port) {
    *host = hostPort;
    *port = defaultPort;
    size_t colon = hostPort.rfind(':');
    if (!hostPort.empty() && hostPort.front() == '[') {
        size_t close = hostPort.find(']');
        if (close == std::string::npos) return;
        *host = hostPort.substr(1, close - 1);
        if (colon == close + 1) *port = std::atoi(hostPort.c_str() + colon + 1);
    } else if (colon != std::string::npos && hostPort.find(':') == colon) {
        *host = hostPort.substr(0, colon);
        *port = std::atoi(hostPort.c_str() + colon + 1);
    }
}

bool UserAgent::createStack(const AccountConfig* first, std::string* why) {
    bool tls = first && first->transport == "tls";
    const zarnrtc::settings::SipSettings settings = zarnrtc::settings::sipSettings();
    std::string bind = settings.bind;
    if (bind.empty() && first) {
        bind = localAddressToward(first->proxy, tls ? kDefaultSipsPort : kDefaultSipPort);
        if (bind.empty()) {
            *why = "no route to the SIP server " + first->proxy;
            return false;
        }
    }
    if (bind.empty()) bind = "*";
    if (bind.find(':') != std::string::npos && bind.front() != '[') bind = "[" + bind + "]";
    std::string url =
        (tls ? "sips:" : "sip:") + bind + ":" + std::to_string(localPort_ < 0 ? 0 : localPort_);
    std::string caDir = tls ? makeCaDir(settings, why) : "";
    if (tls && caDir.empty()) return false;
    nua_ = nua_create(
        root_, onNuaEvent, this, NUTAG_URL(url.c_str()),
        TAG_IF(tls, TPTAG_CERTIFICATE(caDir.c_str())),
        TAG_IF(tls, TPTAG_TLS_VERIFY_POLICY(TPTLS_VERIFY_OUT | TPTLS_VERIFY_SUBJECTS_OUT)),
        // SDP bodies go through untouched: no offer/answer engine.
        NUTAG_MEDIA_ENABLE(0), NUTAG_AUTOALERT(0), NUTAG_AUTOANSWER(0), NUTAG_AUTOACK(1),
        NUTAG_ENABLEMESSAGE(1), SIPTAG_ALLOW_STR(kAllowedMethods), NUTAG_APPL_METHOD(kOurMethods),
        NUTAG_OUTBOUND("no-options-keepalive no-validate"),
        // No 100rel: a 183 must stay unreliable (no PRACK round).
        SIPTAG_SUPPORTED_STR("path"), SIPTAG_USER_AGENT_STR("ZarnRtc-sipengine/1.0"),
        TPTAG_LOG(logLevel() >= 1), TAG_END());
    removeCaDir(caDir);  // read while the TLS transport was made
    if (!nua_) {
        *why = "cannot open SIP transport " + url;
        logError("%s", why->c_str());
        return false;
    }
    stackTls_ = tls;
    warnAgent_ = warningAgent(bind);
    logTrace("user agent listening on %s", url.c_str());
    return true;
}

bool UserAgent::ensureStack(const AccountConfig& cfg, std::string* why) {
    if (!nua_) return createStack(&cfg, why);
    if ((cfg.transport == "tls") == stackTls_) return true;
    *why = stackTls_ ? "this SIP engine speaks TLS only (its first account chose sips:)"
                     : "this SIP engine has no TLS transport (its first account chose plain SIP)";
    return false;
}

void UserAgent::startTlsProbe(Account& acc) {
    joinProbes(false);
    TlsProbeTarget target;
    splitHostPort(acc.config.proxy, kDefaultSipsPort, &target.host, &target.port);
    target.caFile = zarnrtc::settings::sipSettings().caFile;
    target.timeoutMs = kTlsProbeTimeoutMs;
    acc.probing = true;
    auto done = std::make_shared<std::atomic<bool>>(false);
    int id = acc.id;
    // Off the SIP thread: the handshake may take seconds.
    probes_.push_back({done, std::thread([this, target, id, done] {
                           std::string why = probeTlsServer(target);
                           post([this, id, why] { onTlsProbeResult(id, why); });
                           *done = true;
                       })});
}

void UserAgent::onTlsProbeResult(int accId, const std::string& why) {
    auto it = accounts_.find(accId);
    if (it == accounts_.end()) return;
    Account& acc = *it->second;
    acc.probing = false;
    if (closing_ || !acc.wanted) return;
    if (why.empty()) {
        acc.tlsChecked = true;
        issueRegister(acc, false, "");
        return;
    }
    std::string reason = "TLS: " + why;
    logError("account %d: %s", acc.id, reason.c_str());
    if (RegistrationStateDelegate* delegate = regDelegate_.load()) {
        delegate->OnRegistrationFailed(acc.id, 0, reason.c_str());
    }
    // A certificate that does not verify will not mend itself; an absent server may.
    if (why.find("certificate") == std::string::npos && why.find("CA file") == std::string::npos)
        scheduleRetry(acc);
}

void UserAgent::joinProbes(bool all) {
    for (auto it = probes_.begin(); it != probes_.end();) {
        if (all || *it->done) {
            it->thread.join();
            it = probes_.erase(it);
        } else {
            ++it;
        }
    }
}

}  // namespace sipengine
