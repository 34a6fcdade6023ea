// The engine against a SIP implementation that is not itself: sipp as callee and caller.
#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <string>

#include "call_state.h"
#include "kamailio_server.h"
#include "phone.h"
#include "settings_scope.h"

using siptest::Event;
using siptest::KamailioServer;
using siptest::Phone;

using sipengine::kAnswered;
using sipengine::kEarlyMedia;
using sipengine::kHangup;
using sipengine::kRinging;

namespace {

class SipForeignPeer : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!KamailioServer::installed()) GTEST_SKIP() << "kamailio is not installed";
        ASSERT_EQ(siptest::runCommand("command -v sipp >/dev/null"), 0)
            << "sipp missing (Debian package sip-tester)";
        zarnrtc::testing::bindSipToLoopback();
        ASSERT_TRUE(server_.start());
    }

    // sipp in the background, bounded; the future yields its exit status.
    std::future<int> sipp(const std::string& scenario, const std::string& args,
                          const std::string& log) {
        std::string dir = server_.runDir();
        std::string cmd = "timeout 20 sipp -sf " + std::string(ZARNRTC_SIPP_SCENARIOS) + "/" +
                          scenario + " -t t1 -i 127.0.0.1 -m 1 -nostdin -timeout 15s " +
                          "-timeout_error -trace_err -error_file " + dir + "/" + log +
                          "_err.log -trace_msg -message_file " + dir + "/" + log + "_msg.log " +
                          args + " >" + dir + "/" + log + "_out.log 2>&1";
        return std::async(std::launch::async, [cmd] { return siptest::runCommand(cmd); });
    }

    std::string logOf(const std::string& log) {
        std::string path = server_.runDir() + "/" + log + "_msg.log";
        FILE* f = fopen(path.c_str(), "r");
        if (!f) return "";
        std::string text;
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
        fclose(f);
        return text.size() > 6000 ? text.substr(text.size() - 6000) : text;
    }

    KamailioServer server_;
};

TEST_F(SipForeignPeer, EngineCallsSippWithEarlyMedia) {
    Phone door;
    ASSERT_TRUE(door.registerAt(server_.address(), "door", "door123"));
    int sippPort = siptest::freePort();
    std::future<int> peer = sipp("uas_answer.xml", "-p " + std::to_string(sippPort), "uas");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // sipp listening

    int id = door.engine->CreateCall();
    std::string callee = "sip:carol@127.0.0.1:" + std::to_string(sippPort) + ";transport=tcp";
    door.engine->MakeCall(id, callee.c_str(), "Door", "dev_indoor", siptest::kOfferSdp, 160);

    Event early, answer;
    ASSERT_TRUE(door.rec.waitKind(Event::kEarly, id, &early)) << logOf("uas");
    const std::string creds =
        "a=ice-ufrag:sipp\r\na=ice-pwd:sipp0123456789abcdefghij\r\na=fingerprint:sha-256 "
        "AB:CD:EF\r\n";
    EXPECT_EQ(early.text,
              "v=0\r\no=carol 1 1 IN IP4 127.0.0.1\r\ns=early\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\n" +
                  creds +
                  "m=audio 6000 UDP/TLS/RTP/SAVPF 0\r\na=rtpmap:0 PCMU/8000\r\na=recvonly\r\n");
    ASSERT_TRUE(door.rec.waitKind(Event::kAnswer, id, &answer));
    EXPECT_EQ(answer.text,
              "v=0\r\no=carol 1 2 IN IP4 127.0.0.1\r\ns=answer\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\n" +
                  creds +
                  "m=audio 6000 UDP/TLS/RTP/SAVPF 0\r\na=rtpmap:0 PCMU/8000\r\n"
                  "m=video 6002 UDP/TLS/RTP/SAVPF 96\r\na=rtpmap:96 H264/90000\r\n");
    EXPECT_TRUE(answer.b && answer.video);
    ASSERT_TRUE(door.rec.waitState(id, kAnswered));
    door.engine->Hangup(id);
    ASSERT_TRUE(door.rec.waitState(id, kHangup));
    EXPECT_EQ(door.rec.states(id), (std::vector<int>{kRinging, kEarlyMedia, kAnswered, kHangup}));
    EXPECT_EQ(peer.get(), 0) << "sipp callee failed:\n" << logOf("uas");
}

TEST_F(SipForeignPeer, SippCallsEngineWithMessageDtmfAndReinvite) {
    Phone monitor;
    monitor.rec.onEvent = [&monitor](const Event& e) {
        if (e.kind == Event::kOffer) {
            monitor.engine->Accept(e.id, siptest::kAnswerSdp, "dev_indoor", true, true, 480);
        }
    };
    ASSERT_TRUE(monitor.registerAt(server_.address(), "monitor", "monitor123"));

    std::future<int> message = sipp("message.xml", "-s monitor " + server_.address(), "message");
    EXPECT_EQ(message.get(), 0) << logOf("message");
    Event msg;
    ASSERT_TRUE(monitor.rec.waitKind(Event::kMessage, -1, &msg));
    EXPECT_EQ(msg.text, "sip:alice@" + server_.address());
    EXPECT_EQ(msg.text2, "door open\r\n");

    std::future<int> caller = sipp("uac_call.xml", "-s monitor " + server_.address(), "uac");
    int id = monitor.incomingCall();
    ASSERT_GT(id, 0);
    Event incoming, offer, dtmf, media;
    ASSERT_TRUE(monitor.rec.waitKind(Event::kIncoming, id, &incoming));
    EXPECT_EQ(incoming.text, "sip:alice@" + server_.address());
    EXPECT_EQ(incoming.text2.substr(0, incoming.text2.find('|')), "Alice Sipp");
    ASSERT_TRUE(monitor.rec.waitKind(Event::kOffer, id, &offer));
    EXPECT_TRUE(offer.b);
    EXPECT_FALSE(offer.video);
    ASSERT_TRUE(monitor.rec.waitKind(Event::kDtmf, id, &dtmf)) << logOf("uac");
    EXPECT_EQ(dtmf.a, 11);  // '#'
    EXPECT_EQ(dtmf.b, 160);
    ASSERT_TRUE(monitor.rec.waitKind(Event::kMedia, id, &media));
    EXPECT_NE(media.text.find("a=sendonly"), std::string::npos);
    ASSERT_TRUE(monitor.rec.waitState(id, kHangup));
    EXPECT_EQ(monitor.rec.states(id), (std::vector<int>{kAnswered, kHangup}));
    EXPECT_EQ(caller.get(), 0) << "sipp caller failed:\n" << logOf("uac");
}

}  // namespace
