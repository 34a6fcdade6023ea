// The TLS probe against the project's Kamailio serving TLS with certificates made
// at run time: only a server whose chain and name verify is trusted.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "kamailio_server.h"
#include "tls_probe.h"

namespace {

using siptest::runCommand;

struct TlsServer {
    std::string dir;
    int sipPort = 0, tlsPort = 0;
    bool up = false;

    // Certificates named after `names` (make-certs.sh) and a Kamailio serving them.
    bool start(const std::string& names) {
        char tmpl[] = "/tmp/zarnrtc-tls-XXXXXX";
        if (!mkdtemp(tmpl)) return false;
        dir = tmpl;
        std::string scripts = ZARNRTC_KAMAILIO_SCRIPTS;
        if (runCommand(scripts + "/make-certs.sh '" + dir + "/certs' " + names + " >/dev/null") !=
            0)
            return false;
        for (int attempt = 0; attempt < 3 && !up; ++attempt) {
            sipPort = siptest::freePort();
            tlsPort = siptest::freePort();
            up = runCommand("KAMAILIO_TLS_PORT=" + std::to_string(tlsPort) +
                            " KAMAILIO_TLS_CERTS='" + dir + "/certs' " + scripts + "/start.sh " +
                            std::to_string(sipPort) + " '" + dir + "/run' " +
                            std::to_string(getpid())) == 0;
        }
        return up;
    }
    ~TlsServer() {
        if (up) runCommand(std::string(ZARNRTC_KAMAILIO_SCRIPTS) + "/stop.sh '" + dir + "/run'");
        if (!dir.empty()) runCommand("rm -rf '" + dir + "'");
    }
};

sipengine::TlsProbeTarget target(const std::string& host, int port, const std::string& ca) {
    sipengine::TlsProbeTarget t;
    t.host = host;
    t.port = port;
    t.caFile = ca;
    t.timeoutMs = 2000;
    return t;
}

TEST(TlsProbe, OnlyAVerifiedChainAndNameAreTrusted) {
    if (!siptest::KamailioServer::installed()) GTEST_SKIP() << "kamailio is not installed";
    TlsServer server;
    ASSERT_TRUE(server.start("127.0.0.1 localhost")) << "Kamailio with TLS did not start";
    std::string ca = server.dir + "/certs/ca.pem";

    EXPECT_EQ(sipengine::probeTlsServer(target("127.0.0.1", server.tlsPort, ca)), "");

    // A CA of someone else: the chain does not verify, and the reason says so.
    ASSERT_EQ(runCommand(std::string(ZARNRTC_KAMAILIO_SCRIPTS) + "/make-certs.sh '" + server.dir +
                         "/other' >/dev/null"),
              0);
    std::string why = sipengine::probeTlsServer(
        target("127.0.0.1", server.tlsPort, server.dir + "/other/ca.pem"));
    EXPECT_NE(why.find("certificate does not verify"), std::string::npos) << why;

    // The system store does not know our throw-away CA.
    EXPECT_NE(sipengine::probeTlsServer(target("127.0.0.1", server.tlsPort, "")), "");
    // A missing CA file, a closed port, and plain SIP where TLS was asked for.
    EXPECT_NE(sipengine::probeTlsServer(target("127.0.0.1", server.tlsPort, "/nonexistent.pem"))
                  .find("cannot read the CA file"),
              std::string::npos);
    EXPECT_NE(sipengine::probeTlsServer(target("127.0.0.1", siptest::freePort(), ca)), "");
    EXPECT_NE(sipengine::probeTlsServer(target("127.0.0.1", server.sipPort, ca)), "");
}

TEST(TlsProbe, ACertificateForAnotherNameIsRefused) {
    if (!siptest::KamailioServer::installed()) GTEST_SKIP() << "kamailio is not installed";
    TlsServer server;
    ASSERT_TRUE(server.start("sip.example.org")) << "Kamailio with TLS did not start";
    std::string why = sipengine::probeTlsServer(
        target("127.0.0.1", server.tlsPort, server.dir + "/certs/ca.pem"));
    EXPECT_NE(why.find("mismatch"), std::string::npos) << why;
}

}  // namespace
