// The SDK (libzarnrtc) over the host SIP engine, with the fake media engine producing
// SDP at once: registration states reach the application and call() becomes a real
// INVITE at another engine.
#include <gtest/gtest.h>

#include <cstdlib>

#include "app_events.h"
#include "fake_media.h"
#include "site.h"
#include "kept_engine.h"

using siptest::Event;
using siptest::KamailioServer;
using siptest::Phone;

namespace {

using zarnrtc_testing::AppEvents;
using zarnrtc_testing::eventually;

// The SDK's engines live as long as the process, by design: keep them reachable.
zarnrtc::ZarnRtc* g_door = nullptr;
zarnrtc::ZarnRtc* g_intruder = nullptr;
// Never destroyed either: the engines' SIP threads may still report at exit.
AppEvents& g_doorEvents = *new AppEvents;
AppEvents& g_intruderEvents = *new AppEvents;

TEST(SipSdkOverEngine, RegistersAndPlacesRealInvite) {
    SKIP_WITHOUT_KAMAILIO();
    zarnrtc::testing::bindSipToLoopback();
    KamailioServer server;
    ASSERT_TRUE(server.start());
    zarnrtc::fake::mediaConfig().autoNegotiate = true;

    g_door = zarnrtc_testing::keptEngine();
    g_door->setZarnRtcEvent(&g_doorEvents);
    int acc = g_door->registerAccount(server.address().c_str(), "door", "door123", "Door");
    ASSERT_GT(acc, 0);
    ASSERT_TRUE(eventually([&] { return g_doorEvents.sawRegistration(acc, 1); }, 5000));

    g_intruder = zarnrtc_testing::keptEngine();
    g_intruder->setZarnRtcEvent(&g_intruderEvents);
    int bad = g_intruder->registerAccount(server.address().c_str(), "door", "nope", "Door");
    ASSERT_GT(bad, 0);
    EXPECT_TRUE(eventually([&] { return g_intruderEvents.sawRegistration(bad, 3); }, 5000));

    Phone bob;
    ASSERT_TRUE(bob.registerAt(server.address(), "bob", "bob123"));
    std::string callee = "sip:bob@" + server.address();
    int id = g_door->call(callee.c_str());
    ASSERT_GT(id, 0);
    int atBob = bob.incomingCall();
    ASSERT_GT(atBob, 0);
    Event incoming, offer;
    ASSERT_TRUE(bob.rec.waitKind(Event::kIncoming, atBob, &incoming));
    EXPECT_EQ(incoming.text, "sip:door@" + server.address());
    ASSERT_TRUE(bob.rec.waitKind(Event::kOffer, atBob, &offer));
    EXPECT_NE(offer.text.find("v=0"), std::string::npos);

    // An answer that fits the fake media engine's plain offer.
    const char* answer =
        "v=0\r\no=- 5 1 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\n"
        "a=ice-ufrag:bobs\r\na=ice-pwd:bobsbobsbobsbobsbobsbobs\r\n"
        "m=audio 9 RTP/AVPF 8\r\nc=IN IP4 127.0.0.1\r\na=rtpmap:8 PCMA/8000\r\n"
        "m=video 0 RTP/AVPF 96\r\n";
    bob.engine->Accept(atBob, answer, "dev_indoor", true, true, 480);
    EXPECT_TRUE(eventually([&] { return g_doorEvents.saw(id, 6); }, 5000));
    bob.engine->Hangup(atBob);
    EXPECT_TRUE(eventually([&] { return g_doorEvents.saw(id, 7); }, 5000));
    EXPECT_TRUE(bob.rec.waitState(atBob, 7));
}

}  // namespace
