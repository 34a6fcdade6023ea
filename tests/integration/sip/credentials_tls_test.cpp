// Accounts as installers set them up: passwords with any character the registrar
// accepts, and a registrar reached over TLS whose certificate must verify.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>

#include "site.h"

using siptest::Event;
using siptest::KamailioServer;
using siptest::Phone;

using zarnrtc::testing::SipSettings;

namespace {

// `caller` calls `callee` through the server; true once both saw the call end after
// the caller hung up.
bool callThrough(Phone& caller, Phone& callee, const std::string& calleeUri) {
    int id = caller.engine->CreateCall();
    int in = siptest::answeredCall(caller, id, callee, calleeUri);
    if (in <= 0) return false;
    caller.engine->Hangup(id);
    return caller.rec.waitState(id, sipengine::kHangup) &&
           callee.rec.waitState(in, sipengine::kHangup);
}

TEST(Credentials, AnyPasswordTheRegistrarAcceptsWorks) {
    SKIP_WITHOUT_KAMAILIO();
    zarnrtc::testing::bindSipToLoopback();
    KamailioServer server;
    ASSERT_TRUE(server.start());
    Phone colon, odd;
    ASSERT_TRUE(colon.registerAt(server.address(), "colon", "pa:ss"));
    ASSERT_TRUE(odd.registerAt(server.address(), "odd",
                               "p@ss:w\"o\\rd \xc3\xbc"
                               "ber"));
    // Calls are challenged too: the INVITE carries the same kind of answer.
    EXPECT_TRUE(callThrough(odd, colon, "sip:colon@" + server.address()));

    // Only the whole password: neither a part of it nor more than it.
    for (const char* password : {"pa", "pa:ss:more"}) {
        Phone p;
        p.accId = p.engine->MakeRegister("colon", "colon", password, server.address().c_str(),
                                         server.address().c_str(), "TCP", 600, "", false);
        EXPECT_TRUE(p.rec.waitKind(Event::kRegFailed, p.accId)) << password;
        EXPECT_EQ(p.rec.count(Event::kRegOk), 0) << password;
    }
}

class Tls : public ::testing::Test {
  protected:
    void SetUp() override {
        SKIP_WITHOUT_KAMAILIO();
        trust("");
        server_.enableTls();
        ASSERT_TRUE(server_.start()) << "Kamailio with TLS did not start";
        registrar_ = "sips:127.0.0.1:" + std::to_string(server_.tlsPort());
    }
    // The CA a case trusts (empty: the system's); bound where the account lives:
    // toward the registrar, so 127.0.0.1 here.
    void trust(const std::string& caFile) {
        tls_.emplace([caFile](SipSettings& s) {
            s.caFile = caFile;
            s.bind.clear();
        });
    }

    std::optional<zarnrtc::testing::SettingsScope<SipSettings>> tls_;
    KamailioServer server_;
    std::string registrar_;
};

TEST_F(Tls, RegistersAndCallsOverTls) {
    trust(server_.certDir() + "/ca.pem");
    Phone door, monitor;
    ASSERT_TRUE(door.registerAt(registrar_, "door", "door123"));
    ASSERT_TRUE(monitor.registerAt(registrar_, "monitor", "monitor123"));
    EXPECT_TRUE(callThrough(door, monitor, "monitor"));  // at the registrar's domain
}

TEST_F(Tls, ACertificateThatDoesNotVerifyFailsAtOnceAndSaysWhy) {
    std::string other = server_.runDir() + "/other";
    ASSERT_EQ(siptest::runCommand(KamailioServer::scriptsDir() + "/make-certs.sh '" + other +
                                  "' >/dev/null"),
              0);
    trust(other + "/ca.pem");
    Phone door;
    auto start = std::chrono::steady_clock::now();
    door.accId = door.engine->MakeRegister("door", "door", "door123", registrar_.c_str(),
                                           registrar_.c_str(), "TCP", 600, "Door", false);
    Event failed;
    ASSERT_TRUE(door.rec.waitKind(Event::kRegFailed, door.accId, &failed));
    auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    printf("a certificate that does not verify failed the registration after %lld ms: %s\n",
           static_cast<long long>(took.count()), failed.text.c_str());
    EXPECT_NE(failed.text.find("certificate does not verify"), std::string::npos) << failed.text;
    // Never a plain-TCP fallback, and no second report for the same attempt.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(door.rec.count(Event::kRegOk), 0);
}

}  // namespace
