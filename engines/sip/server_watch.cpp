// While a TCP or TLS account waits to register again, its server's port is tried
// every few hundred milliseconds: the REGISTER goes out as soon as the server is
// back, not at the next step of the back-off.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

#include "log.h"
#include "user_agent.h"

namespace sipengine {

namespace {

constexpr int kWatchIntervalMs = 250;
constexpr int kDefaultSipPort = 5060;
constexpr int kDefaultSipsPort = 5061;

// A non-blocking connect to a numeric address; -1 if there is none to try.
int startConnect(const AccountConfig& cfg) {
    std::string host;
    int port = 0;
    splitHostPort(cfg.proxy, cfg.transport == "tls" ? kDefaultSipsPort : kDefaultSipPort, &host,
                  &port);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;  // never a DNS wait on this thread
    addrinfo* list = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list) != 0) return -1;
    int fd = socket(list->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, list->ai_addr, list->ai_addrlen) != 0 && errno != EINPROGRESS) {
        close(fd);
        fd = -1;
    }
    freeaddrinfo(list);
    return fd;
}

// 1: connected, 0: still trying, -1: refused or failed.
int connectOutcome(int fd) {
    pollfd p{fd, POLLOUT, 0};
    if (poll(&p, 1, 0) != 1) return 0;
    int err = 0;
    socklen_t len = sizeof(err);
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 && err == 0 ? 1 : -1;
}

}  // namespace

void UserAgent::startServerWatch(Account& acc) {
    if (acc.config.transport == "udp") return;  // nothing to connect to
    // Our connection is gone, and with it the route of every dialog's requests to us.
    markTargetsStale(acc);
    if (!acc.watchTimer) acc.watchTimer = su_timer_create(su_root_task(root_), 0);
    if (!acc.watchTimer) return;
    su_timer_set_interval(acc.watchTimer, onServerWatch,
                          reinterpret_cast<void*>(static_cast<intptr_t>(acc.id)), kWatchIntervalMs);
}

void UserAgent::stopServerWatch(Account& acc) {
    if (acc.watchFd >= 0) close(acc.watchFd), acc.watchFd = -1;
    if (acc.watchTimer) su_timer_destroy(acc.watchTimer), acc.watchTimer = nullptr;
}

void UserAgent::onServerWatch(void* magic, su_timer_t*, void* arg) {
    auto* self = static_cast<UserAgent*>(magic);
    auto it = self->accounts_.find(static_cast<int>(reinterpret_cast<intptr_t>(arg)));
    if (it == self->accounts_.end()) return;
    Account& acc = *it->second;
    if (self->closing_ || !acc.wanted || acc.inFlight || acc.probing) {
        self->stopServerWatch(acc);
        return;
    }
    int outcome = acc.watchFd >= 0 ? connectOutcome(acc.watchFd) : -1;
    if (outcome == 0) {
        su_timer_set_interval(acc.watchTimer, onServerWatch, arg, kWatchIntervalMs);
        return;
    }
    if (acc.watchFd >= 0) close(acc.watchFd), acc.watchFd = -1;
    if (outcome == 1) {
        logTrace("account %d: server %s is back", acc.id, acc.config.proxy.c_str());
        self->stopServerWatch(acc);
        if (acc.retryTimer) su_timer_reset(acc.retryTimer);
        self->sendRegister(acc);
        return;
    }
    acc.watchFd = startConnect(acc.config);
    su_timer_set_interval(acc.watchTimer, onServerWatch, arg, kWatchIntervalMs);
}

}  // namespace sipengine
