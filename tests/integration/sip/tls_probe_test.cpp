// The TLS probe against the project's Kamailio serving TLS with certificates made
// at run time: only a server whose chain and name verify is trusted.
#include <gtest/gtest.h>

#include <string>

#include "kamailio_server.h"
#include "tls_probe.h"

namespace {

using siptest::KamailioServer;
using siptest::runCommand;

sipengine::TlsProbeTarget target(const std::string& host, int port, const std::string& ca) {
    sipengine::TlsProbeTarget t;
    t.host = host;
    t.port = port;
    t.caFile = ca;
    t.timeoutMs = 2000;
    return t;
}

TEST(TlsProbe, OnlyAVerifiedChainAndNameAreTrusted) {
    if (!KamailioServer::installed()) GTEST_SKIP() << "kamailio is not installed";
    KamailioServer server;
    server.enableTls();
    ASSERT_TRUE(server.start()) << "Kamailio with TLS did not start";
    std::string ca = server.certDir() + "/ca.pem";

    EXPECT_EQ(sipengine::probeTlsServer(target("127.0.0.1", server.tlsPort(), ca)), "");

    // A CA of someone else: the chain does not verify, and the reason says so.
    std::string other = server.runDir() + "/other";
    ASSERT_EQ(
        runCommand(KamailioServer::scriptsDir() + "/make-certs.sh '" + other + "' >/dev/null"), 0);
    std::string why =
        sipengine::probeTlsServer(target("127.0.0.1", server.tlsPort(), other + "/ca.pem"));
    EXPECT_NE(why.find("certificate does not verify"), std::string::npos) << why;

    // The system store does not know our throw-away CA.
    EXPECT_NE(sipengine::probeTlsServer(target("127.0.0.1", server.tlsPort(), "")), "");
    // A missing CA file, a closed port, and plain SIP where TLS was asked for.
    EXPECT_NE(sipengine::probeTlsServer(target("127.0.0.1", server.tlsPort(), "/nonexistent.pem"))
                  .find("cannot read the CA file"),
              std::string::npos);
    EXPECT_NE(sipengine::probeTlsServer(target("127.0.0.1", siptest::freePort(), ca)), "");
    EXPECT_NE(sipengine::probeTlsServer(target("127.0.0.1", server.port(), ca)), "");
}

TEST(TlsProbe, ACertificateForAnotherNameIsRefused) {
    if (!KamailioServer::installed()) GTEST_SKIP() << "kamailio is not installed";
    KamailioServer server;
    server.enableTls("sip.example.org");
    ASSERT_TRUE(server.start()) << "Kamailio with TLS did not start";
    std::string why = sipengine::probeTlsServer(
        target("127.0.0.1", server.tlsPort(), server.certDir() + "/ca.pem"));
    EXPECT_NE(why.find("mismatch"), std::string::npos) << why;
}

}  // namespace
