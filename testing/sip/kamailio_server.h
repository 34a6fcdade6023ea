// The project's Kamailio on a free loopback port, started and stopped through
// scripts/kamailio. Stopped also if the test process dies.
#ifndef ZARNRTC_TESTING_SIP_KAMAILIO_SERVER_H
#define ZARNRTC_TESTING_SIP_KAMAILIO_SERVER_H

#include <string>

namespace siptest {

class KamailioServer {
  public:
    KamailioServer();
    ~KamailioServer();

    static bool installed();
    // Also serve TLS, with a CA and server certificate made for the names given
    // (make-certs.sh) in certDir(). Call before start().
    void enableTls(const std::string& names = "127.0.0.1 localhost") { tlsNames_ = names; }
    // Picks free ports on the first start and keeps them for restarts.
    bool start();
    void stop();
    int port() const { return port_; }
    int tlsPort() const { return tlsPort_; }
    std::string address() const;  // "127.0.0.1:PORT"
    const std::string& runDir() const { return runDir_; }
    std::string certDir() const { return runDir_ + "/certs"; }
    static std::string scriptsDir();

  private:
    int port_ = 0;
    int tlsPort_ = 0;
    std::string tlsNames_;
    bool running_ = false;
    std::string runDir_;
};

// A port free for both UDP and TCP on 127.0.0.1.
int freePort();

// Entries of a directory such as /proc/self/task (threads) or /proc/self/fd.
int countEntries(const char* dir);

// Runs a command through /bin/sh, returns its exit status (-1 if it did not exit).
int runCommand(const std::string& command);

}  // namespace siptest

#endif
