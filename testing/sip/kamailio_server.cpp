#include "kamailio_server.h"

#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#ifndef ZARNRTC_KAMAILIO_SCRIPTS
#error "ZARNRTC_KAMAILIO_SCRIPTS must name scripts/kamailio"
#endif

namespace siptest {

namespace {

bool bindable(int type, int port) {
    int fd = socket(AF_INET, type, 0);
    if (fd < 0) return false;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    bool ok = bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

}  // namespace

int freePort() {
    for (int attempt = 0; attempt < 50; ++attempt) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        if (fd < 0) return 0;
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        int port = 0;
        if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
            port = ntohs(addr.sin_port);
        close(fd);
        if (port > 0 && bindable(SOCK_DGRAM, port) && bindable(SOCK_STREAM, port)) return port;
    }
    return 0;
}

int runCommand(const std::string& command) {
    int status = system(command.c_str());
    if (status == -1 || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

KamailioServer::KamailioServer() {
    char tmpl[] = "/tmp/zarnrtc-kamailio-XXXXXX";
    if (mkdtemp(tmpl)) runDir_ = tmpl;
}

KamailioServer::~KamailioServer() {
    stop();
    // ZARNRTC_TEST_KEEP_LOGS=1 keeps Kamailio's and sipp's logs for a look.
    const char* keep = getenv("ZARNRTC_TEST_KEEP_LOGS");
    if (!runDir_.empty() && !(keep && *keep == '1')) runCommand("rm -rf '" + runDir_ + "'");
}

bool KamailioServer::installed() {
    return access("/usr/sbin/kamailio", X_OK) == 0 ||
           runCommand("command -v kamailio >/dev/null 2>&1") == 0;
}

std::string KamailioServer::address() const {
    return "127.0.0.1:" + std::to_string(port_);
}

std::string KamailioServer::scriptsDir() {
    return ZARNRTC_KAMAILIO_SCRIPTS;
}

bool KamailioServer::start() {
    if (running_) return true;
    if (runDir_.empty()) return false;
    if (!tlsNames_.empty() && runCommand(scriptsDir() + "/make-certs.sh '" + certDir() + "' " +
                                         tlsNames_ + " >/dev/null") != 0)
        return false;
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (port_ == 0 || attempt > 0) port_ = freePort();
        if (!tlsNames_.empty() && (tlsPort_ == 0 || attempt > 0)) tlsPort_ = freePort();
        if (port_ == 0 || (!tlsNames_.empty() && tlsPort_ == 0)) return false;
        std::string tls = tlsNames_.empty() ? ""
                                            : "KAMAILIO_TLS_PORT=" + std::to_string(tlsPort_) +
                                                  " KAMAILIO_TLS_CERTS='" + certDir() + "' ";
        std::string cmd = tls + scriptsDir() + "/start.sh " + std::to_string(port_) + " '" +
                          runDir_ + "' " + std::to_string(getpid());
        if (runCommand(cmd) == 0) {
            running_ = true;
            return true;
        }
    }
    return false;
}

void KamailioServer::stop() {
    if (!running_) return;
    runCommand(std::string(ZARNRTC_KAMAILIO_SCRIPTS) + "/stop.sh '" + runDir_ + "'");
    running_ = false;
}

int countEntries(const char* dir) {
    int n = 0;
    if (DIR* d = opendir(dir)) {
        while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
        closedir(d);
    }
    return n;
}

}  // namespace siptest
