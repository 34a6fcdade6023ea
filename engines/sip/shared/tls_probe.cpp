#include "tls_probe.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>

namespace sipengine {
namespace {

using Clock = std::chrono::steady_clock;

struct SslCtxFree {
    void operator()(SSL_CTX* c) const { SSL_CTX_free(c); }
};
struct SslFree {
    void operator()(SSL* s) const { SSL_free(s); }
};

class Fd {
  public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) close(fd_);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

int remainingMs(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

bool waitFor(int fd, short events, Clock::time_point deadline) {
    pollfd p{fd, events, 0};
    return poll(&p, 1, remainingMs(deadline)) == 1;
}

// A non-blocking connect to the first address that answers before the deadline.
int connectTo(const TlsProbeTarget& t, Clock::time_point deadline, std::string* why) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* list = nullptr;
    std::string port = std::to_string(t.port);
    int rc = getaddrinfo(t.host.c_str(), port.c_str(), &hints, &list);
    if (rc != 0) {
        *why = "cannot resolve " + t.host + ": " + gai_strerror(rc);
        return -1;
    }
    int fd = -1;
    for (addrinfo* a = list; a && fd < 0; a = a->ai_next) {
        fd = socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) continue;
        if (connect(fd, a->ai_addr, a->ai_addrlen) != 0 &&
            (errno != EINPROGRESS || !waitFor(fd, POLLOUT, deadline))) {
            close(fd);
            fd = -1;
            continue;
        }
        int err = 0;
        socklen_t len = sizeof(err);
        if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0) {
            close(fd);
            fd = -1;
        }
    }
    freeaddrinfo(list);
    if (fd < 0) *why = "cannot connect to " + t.host + ":" + port;
    return fd;
}

bool isAddress(const std::string& host) {
    unsigned char buf[sizeof(in6_addr)];
    return inet_pton(AF_INET, host.c_str(), buf) == 1 ||
           inet_pton(AF_INET6, host.c_str(), buf) == 1;
}

std::unique_ptr<SSL_CTX, SslCtxFree> makeContext(const TlsProbeTarget& t, std::string* why) {
    std::unique_ptr<SSL_CTX, SslCtxFree> ctx(SSL_CTX_new(TLS_client_method()));
    if (!ctx) {
        *why = "cannot create a TLS context";
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(ctx.get(), TLS1_2_VERSION);
    SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER, nullptr);
    int loaded = t.caFile.empty()
                     ? SSL_CTX_set_default_verify_paths(ctx.get())
                     : SSL_CTX_load_verify_locations(ctx.get(), t.caFile.c_str(), nullptr);
    if (loaded != 1) {
        *why = t.caFile.empty() ? "cannot load the system's CA store"
                                : "cannot read the CA file " + t.caFile;
        return nullptr;
    }
    return ctx;
}

// Drives the handshake on the non-blocking socket until it ends or time runs out.
std::string handshake(SSL* ssl, int fd, Clock::time_point deadline) {
    for (;;) {
        ERR_clear_error();
        int rc = SSL_connect(ssl);
        if (rc == 1) return "";
        int err = SSL_get_error(ssl, rc);
        short events = err == SSL_ERROR_WANT_READ    ? POLLIN
                       : err == SSL_ERROR_WANT_WRITE ? POLLOUT
                                                     : 0;
        if (events && waitFor(fd, events, deadline)) continue;
        if (events) return "TLS handshake timed out";
        long verify = SSL_get_verify_result(ssl);
        if (verify != X509_V_OK)
            return std::string("certificate does not verify: ") +
                   X509_verify_cert_error_string(verify);
        unsigned long e = ERR_get_error();
        char text[256] = "TLS handshake failed";
        if (e) ERR_error_string_n(e, text, sizeof(text));
        return text;
    }
}

}  // namespace

std::string probeTlsServer(const TlsProbeTarget& target) {
    std::string why;
    auto deadline = Clock::now() + std::chrono::milliseconds(target.timeoutMs);
    auto ctx = makeContext(target, &why);
    if (!ctx) return why;
    Fd fd(connectTo(target, deadline, &why));
    if (fd.get() < 0) return why;

    std::unique_ptr<SSL, SslFree> ssl(SSL_new(ctx.get()));
    if (!ssl || SSL_set_fd(ssl.get(), fd.get()) != 1) return "cannot create a TLS session";
    X509_VERIFY_PARAM* param = SSL_get0_param(ssl.get());
    // The certificate must name the server we were told to use: its address or name.
    int named = isAddress(target.host) ? X509_VERIFY_PARAM_set1_ip_asc(param, target.host.c_str())
                                       : X509_VERIFY_PARAM_set1_host(param, target.host.c_str(), 0);
    if (named != 1) return "cannot check the server's name " + target.host;
    if (!isAddress(target.host)) SSL_set_tlsext_host_name(ssl.get(), target.host.c_str());

    why = handshake(ssl.get(), fd.get(), deadline);
    if (why.empty()) SSL_shutdown(ssl.get());
    return why.empty() ? "" : target.host + ":" + std::to_string(target.port) + ": " + why;
}

}  // namespace sipengine
