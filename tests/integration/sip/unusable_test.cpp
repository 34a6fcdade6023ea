// Never a silent hang, always a reason: descriptions the media engine cannot use end
// their call at once with the reason on the wire (Warning in a 488 or 500, Reason in a
// BYE), and a callee that refuses our plain offer (a browser) gets the same call again
// in DTLS-SRTP, which the SDK never hears of. sipp plays the foreign peers.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine_link.h"
#include "site.h"
#include "settings_scope.h"

using siptest::Event;
using siptest::KamailioServer;
using siptest::Phone;

using sipengine::kAnswered;
using sipengine::kCancel;
using sipengine::kFailed;
using sipengine::kHangup;
using sipengine::kRinging;

namespace {

// The Warning our engine writes: it listens on 127.0.0.1 in these tests.
std::string warningOf(const std::string& why) {
    return "399 127.0.0.1 \"" + why + "\"";
}

std::string readFile(const std::string& path) {
    std::string text;
    if (FILE* f = fopen(path.c_str(), "r")) {
        char buf[4096];
        size_t n;
        while ((n = fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
        fclose(f);
    }
    return text;
}

void writeFile(const std::string& path, const std::string& text) {
    if (FILE* f = fopen(path.c_str(), "w")) {
        fwrite(text.data(), 1, text.size(), f);
        fclose(f);
    }
}

// Lines of `text` that start with `prefix`, without it.
std::vector<std::string> linesAfter(const std::string& text, const std::string& prefix) {
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t eol = text.find('\n', pos);
        std::string line = text.substr(pos, eol == std::string::npos ? eol : eol - pos);
        pos = eol == std::string::npos ? text.size() : eol + 1;
        size_t at = line.find(prefix);
        if (at != std::string::npos) out.push_back(line.substr(at + prefix.size()));
    }
    return out;
}

// The set-up marks the engines keep (ZARNRTC_TIMELINE=keep), read as they come.
struct Marks {
    std::vector<std::string> events;
    void drain() {
        zarn_timeline_drain(
            [](void* context, long long, unsigned long, const char* event) {
                static_cast<Marks*>(context)->events.push_back(event);
            },
            this);
    }
    int count(const std::string& event) {
        drain();
        int n = 0;
        for (const std::string& e : events) n += e == event;
        return n;
    }
};

constexpr char kFallbackMark[] = "sip: 488 to the offer, INVITE again with DTLS-SRTP";

class Unusable : public ::testing::Test {
  protected:
    void SetUp() override {
        SKIP_WITHOUT_KAMAILIO();
        ASSERT_EQ(siptest::runCommand("command -v sipp >/dev/null"), 0)
            << "sipp missing (Debian package sip-tester)";
        zarnrtc::testing::bindSipToLoopback();
        // Read once per process, before any engine marks.
        zarnrtc::testing::editSettings<zarnrtc::testing::LinkSettings>(
            [](zarnrtc::testing::LinkSettings& l) {
                l.timeline = zarnrtc::settings::Timeline::kKeep;
            });
        ASSERT_TRUE(server_.start());
    }

    // sipp in the background, bounded; logs under the run directory as `name`_*.
    std::future<int> sipp(const std::string& scenario, const std::string& args,
                          const std::string& name) {
        std::string base = server_.runDir() + "/" + name;
        std::string cmd = "timeout 25 sipp -sf " + std::string(ZARNRTC_SIPP_SCENARIOS) + "/" +
                          scenario + " -t t1 -i 127.0.0.1 -nostdin -timeout 20s -timeout_error " +
                          "-trace_err -error_file " + base + "_err.log -trace_msg -message_file " +
                          base + "_msg.log -trace_logs -log_file " + base + "_logs.log " + args +
                          " >" + base + "_out.log 2>&1";
        return std::async(std::launch::async, [cmd] { return siptest::runCommand(cmd); });
    }
    std::string log(const std::string& name, const char* kind) {
        return readFile(server_.runDir() + "/" + name + "_" + kind + ".log");
    }
    std::string why(const std::string& name) {
        std::string msg = log(name, "msg");
        return log(name, "err") + log(name, "logs") +
               (msg.size() > 6000 ? msg.substr(msg.size() - 6000) : msg);
    }

    KamailioServer server_;
};

// A DTLS-SRTP offer any check lets through, as a SIP phone writes it.
const char kUsableOffer[] =
    "v=0\r\no=alice 1 1 IN IP4 127.0.0.1\r\ns=sipp\r\nc=IN IP4 127.0.0.1\r\nt=0 0\r\n"
    "a=ice-ufrag:sipp\r\na=ice-pwd:sipp0123456789abcdefghij\r\na=fingerprint:sha-256 AB:CD:EF\r\n"
    "a=setup:actpass\r\nm=audio 6002 UDP/TLS/RTP/SAVPF 0\r\na=rtpmap:0 PCMU/8000\r\n";

// What a registered caller hears: refusals before it rings (checked by the engine
// before any media work) and refusals the media engine reported after the offer went
// to the SDK. Each with the reason in a Warning; the callee's application hears
// nothing of the first kind and exactly one end of the second.
TEST_F(Unusable, RefusedOffersCarryTheirReason) {
    struct Case {
        const char* name;
        std::string offer;  // "" for an INVITE without a body
        int reportStatus;   // the media engine's report once the SDK has the offer; 0: none
        std::string reportWhy;
        int status;               // what the caller gets
        std::string warningText;  // "" where the wording is the media engine's own
    };
    const std::vector<Case> cases = {
        {"no usable media",
         "v=0\r\no=alice 1 1 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\nm=audio 0 RTP/AVP 0\r\n"
         "m=application 9 UDP/DTLS/SCTP webrtc-datachannel\r\n",
         0, "", 488, ""},
        {"no offer", "", 0, "", 488,
         "no SDP offer in the INVITE: this device answers offers, not delayed offers"},
        {"reported unusable", kUsableOffer, 488, "no video codec in common", 488,
         "no video codec in common"},
        {"reported failure, hostile text", kUsableOffer, 500,
         "pipeline \"rtpbin\" failed\r\nX-Injected: 1", 500,
         "pipeline 'rtpbin' failed  X-Injected: 1"},
    };
    Phone monitor;
    ASSERT_TRUE(monitor.registerAt(server_.address(), "monitor", "monitor123"));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        monitor.rec.clear();
        std::string name = std::string("uac_") + std::to_string(&c - cases.data());
        std::string offerFile = server_.runDir() + "/" + name + ".sdp";
        writeFile(offerFile, c.offer);
        std::string ctype = c.offer.empty() ? "" : "Content-Type: application/sdp";
        std::future<int> caller = sipp("uac_offer.xml",
                                       "-m 1 -s monitor -set offer '" + offerFile +
                                           "' -set ctype '" + ctype + "' " + server_.address(),
                                       name);
        int in = 0;
        if (c.reportStatus) {
            Event offer;
            ASSERT_TRUE(monitor.rec.waitKind(Event::kOffer, -1, &offer)) << why(name);
            in = offer.id;
            // As the media engine does: the text the SDK handed it, unchanged.
            zarn_link_report_unusable(offer.text.c_str(), c.reportStatus, c.reportWhy.c_str());
        }
        EXPECT_EQ(caller.get(), 0) << why(name);

        std::vector<std::string> finals = linesAfter(log(name, "logs"), "final ");
        ASSERT_EQ(finals.size(), 1u) << why(name);
        int status = 0;
        double sentS = 0, sentUs = 0, gotS = 0, gotUs = 0;
        ASSERT_EQ(sscanf(finals[0].c_str(), "%d sent %lf %lf got %lf %lf", &status, &sentS, &sentUs,
                         &gotS, &gotUs),
                  5)
            << finals[0];
        EXPECT_EQ(status, c.status);
        std::string warning = finals[0].substr(finals[0].find("warning:") + 8);
        while (!warning.empty() && warning.front() == ' ') warning.erase(0, 1);
        if (c.warningText.empty()) {
            EXPECT_EQ(warning.rfind("399 127.0.0.1 \"", 0), 0u) << warning;
            EXPECT_GT(warning.size(), std::string("399 127.0.0.1 \"x\"").size()) << warning;
        } else {
            EXPECT_EQ(warning, warningOf(c.warningText));
        }
        EXPECT_EQ(log(name, "msg").find("\nX-Injected"), std::string::npos);

        if (!c.reportStatus) {
            // Before ringing, with no call, media or callback for the application.
            double ms = (gotS - sentS) * 1000 + (gotUs - sentUs) / 1000;
            printf("%s: %d with Warning %.1f ms after the INVITE left the caller (bound 1 s)\n",
                   c.name, status, ms);
            EXPECT_LT(ms, 1000);
            EXPECT_EQ(log(name, "msg").find("SIP/2.0 180"), std::string::npos);
            EXPECT_TRUE(monitor.rec.events().empty());
        } else {
            siptest::expectEndsOnce(monitor, in);
            EXPECT_EQ(monitor.rec.states(in), std::vector<int>{kHangup});
            Event end;
            monitor.rec.waitFor([&](const Event& e) { return e.kind == Event::kState; }, &end);
            EXPECT_EQ(end.b, c.status);
        }
    }
}

// The door calls a callee that is up and answered, then the media engine finds it
// cannot use the answer: BYE with the reason, one end (488) for the application.
TEST_F(Unusable, AReportedAnswerEndsTheCallWithBye) {
    Phone door;
    ASSERT_TRUE(door.registerAt(server_.address(), "door", "door123"));
    int port = siptest::freePort();
    std::future<int> callee =
        sipp("uas_dtls_only.xml", "-m 1 -set mode answer -p " + std::to_string(port), "uas");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // sipp listening
    int id = door.engine->CreateCall();
    std::string uri = "sip:carol@127.0.0.1:" + std::to_string(port) + ";transport=tcp";
    door.engine->MakeCall(id, uri.c_str(), "Door", "dev_door", siptest::kOfferSdp, 160);
    Event answer;
    ASSERT_TRUE(door.rec.waitKind(Event::kAnswer, id, &answer)) << why("uas");
    ASSERT_TRUE(door.rec.waitState(id, kAnswered));

    zarn_link_report_unusable("v=0\r\n", 488, "another call's answer");
    zarn_link_report_unusable(answer.text.c_str(), 488, "no video codec in common");
    siptest::expectEndsOnce(door, id);
    EXPECT_EQ(door.rec.states(id), (std::vector<int>{kRinging, kAnswered, kHangup}));
    Event end;
    door.rec.waitFor([&](const Event& e) { return e.kind == Event::kState && e.a == kHangup; },
                     &end);
    EXPECT_EQ(end.b, 488);
    EXPECT_EQ(callee.get(), 0) << why("uas");
    EXPECT_EQ(linesAfter(log("uas", "logs"), "BYE reason:"),
              std::vector<std::string>{
                  " SIP;cause=488;text=\"unusable answer: no video codec in common\""});
}

// The door's plain offer (what the SDK configures) to a callee that takes DTLS-SRTP
// only. The media engine left the DTLS-SRTP variant in the link (the test does it
// here); the engine sends it once on the 488.
std::string plainOffer(const std::string& ufrag) {
    return "v=0\r\no=- 11 2 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\na=ice-ufrag:" + ufrag +
           "\r\na=ice-pwd:door0123456789abcdefghij\r\n"
           "m=audio 39601 RTP/AVPF 0\r\nc=IN IP4 127.0.0.1\r\na=rtcp-mux\r\na=rtpmap:0 "
           "PCMU/8000\r\n"
           "m=video 56028 RTP/AVPF 96\r\nc=IN IP4 127.0.0.1\r\na=rtcp-mux\r\n"
           "a=rtpmap:96 H264/90000\r\n";
}
std::string dtlsAlternative(const std::string& ufrag) {
    return "v=0\r\no=- 11 2 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\na=ice-ufrag:" + ufrag +
           "\r\na=ice-pwd:door0123456789abcdefghij\r\n"
           "a=fingerprint:sha-256 12:34:56\r\na=setup:actpass\r\n"
           "m=audio 39601 UDP/TLS/RTP/SAVPF 0\r\nc=IN IP4 127.0.0.1\r\na=rtcp-mux\r\n"
           "a=rtpmap:0 PCMU/8000\r\nm=video 56028 UDP/TLS/RTP/SAVPF 96\r\nc=IN IP4 127.0.0.1\r\n"
           "a=rtcp-mux\r\na=rtpmap:96 H264/90000\r\n";
}

std::string avpAlternative(const std::string& ufrag) {
    std::string offer = plainOffer(ufrag);
    for (size_t at; (at = offer.find("RTP/AVPF")) != std::string::npos;) offer.erase(at + 7, 1);
    return offer;
}

TEST_F(Unusable, APlainOfferRefusedGoesOutAgainInDtlsSrtp) {
    struct Case {
        const char* name;
        int alternatives;  // the media engine left none, DTLS-SRTP, or RTP/AVP then DTLS-SRTP
        bool hangUp;       // the application hangs up once the second INVITE rings
        std::vector<int> states;
        int endReason;
        std::vector<std::string> invites;  // audio profiles the callee saw, in order
    };
    const std::string plain = " RTP/AVPF", avp = " RTP/AVP", dtls = " UDP/TLS/RTP/SAVPF";
    const std::vector<Case> cases = {
        {"answered", 1, false, {kRinging, kAnswered, kHangup}, 200, {plain, dtls}},
        {"RTP/AVP refused too", 2, false, {kRinging, kAnswered, kHangup}, 200, {plain, avp, dtls}},
        {"no alternative", 0, false, {kRinging, kFailed, kHangup}, 488, {plain}},
        {"hung up during the fallback", 1, true, {kRinging, kCancel, kHangup}, 487, {plain, dtls}},
    };
    Phone door;
    ASSERT_TRUE(door.registerAt(server_.address(), "door", "door123"));
    Marks marks;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string name = std::string("uas_") + std::to_string(&c - cases.data());
        int port = siptest::freePort();
        std::future<int> callee =
            sipp("uas_dtls_only.xml",
                 "-m " + std::to_string(c.invites.size()) + " -set mode " +
                     (c.hangUp ? "wait" : "answer") + " -p " + std::to_string(port),
                 name);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));  // sipp listening
        std::string variants[] = {avpAlternative("door"), dtlsAlternative("door")};
        const char* listed[] = {variants[0].c_str(), variants[1].c_str()};
        if (c.alternatives == 1) zarn_link_put_alternative("door", listed[1]);
        if (c.alternatives == 2) zarn_link_put_alternatives("door", listed, 2);
        marks.drain();  // only this call's marks from here on
        marks.events.clear();

        int id = door.engine->CreateCall();
        std::string uri = "sip:carol@127.0.0.1:" + std::to_string(port) + ";transport=tcp";
        door.engine->MakeCall(id, uri.c_str(), "Door", "dev_door", plainOffer("door").c_str(), 160);
        if (c.hangUp) {
            // Once the second INVITE has left with its answer to the proxy's challenge.
            auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
            while (std::chrono::steady_clock::now() < deadline &&
                   (marks.count(kFallbackMark) == 0 || marks.count("sip: INVITE sent") < 4))
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            std::this_thread::sleep_for(std::chrono::milliseconds(100));  // at the callee
            door.engine->Hangup(id);
        } else if (c.states[1] == kAnswered) {
            ASSERT_TRUE(door.rec.waitState(id, kAnswered)) << why(name);
            door.engine->Hangup(id);
        }
        siptest::expectEndsOnce(door, id);
        EXPECT_EQ(door.rec.states(id), c.states) << why(name);
        Event end;
        door.rec.waitFor(
            [&](const Event& e) { return e.kind == Event::kState && e.id == id && e.a == kHangup; },
            &end);
        EXPECT_EQ(end.b, c.endReason);
        EXPECT_EQ(door.rec.count(Event::kAnswer, id), c.states[1] == kAnswered ? 1 : 0);
        EXPECT_EQ(callee.get(), 0) << why(name);

        std::vector<std::string> invites = linesAfter(log(name, "logs"), "INVITE");
        EXPECT_EQ(invites, c.invites) << why(name);
        std::string wire = log(name, "msg");
        EXPECT_NE(wire.find(plainOffer("door")), std::string::npos);
        EXPECT_EQ(wire.find(dtlsAlternative("door")) != std::string::npos, c.alternatives > 0);
        EXPECT_EQ(marks.count(kFallbackMark), c.alternatives > 0 ? 1 : 0);
        char* left = zarn_link_copy_alternative("door", 0);
        EXPECT_EQ(left, nullptr) << "the ended call's alternative is forgotten";
        free(left);
    }
}

// Forwarding rings several callees at once, each with its own call and offer: each
// falls back with its own variant.
TEST_F(Unusable, ForwardedCallsFallBackEachWithItsOwnOffer) {
    Phone door;
    ASSERT_TRUE(door.registerAt(server_.address(), "door", "door123"));
    int port = siptest::freePort();
    std::future<int> callees =
        sipp("uas_dtls_only.xml", "-m 4 -set mode answer -p " + std::to_string(port), "uas");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // sipp listening
    std::vector<int> ids;
    for (const char* ufrag : {"fwd1", "fwd2"}) {
        zarn_link_put_alternative(ufrag, dtlsAlternative(ufrag).c_str());
        int id = door.engine->CreateCall();
        std::string uri =
            "sip:" + std::string(ufrag) + "@127.0.0.1:" + std::to_string(port) + ";transport=tcp";
        door.engine->MakeCall(id, uri.c_str(), "Door", "dev_door", plainOffer(ufrag).c_str(), 160);
        ids.push_back(id);
    }
    for (int id : ids) ASSERT_TRUE(door.rec.waitState(id, kAnswered)) << why("uas");
    for (int id : ids) door.engine->Hangup(id);
    for (int id : ids) {
        siptest::expectEndsOnce(door, id);
        EXPECT_EQ(door.rec.states(id), (std::vector<int>{kRinging, kAnswered, kHangup}));
    }
    EXPECT_EQ(callees.get(), 0) << why("uas");
    // Each second INVITE went to its own callee with its own variant.
    std::string wire = log("uas", "msg");
    for (const char* ufrag : {"fwd1", "fwd2"}) {
        size_t at = wire.find(dtlsAlternative(ufrag));
        ASSERT_NE(at, std::string::npos) << ufrag;
        size_t invite = wire.rfind("INVITE sip:", at);
        std::string requestLine = "INVITE sip:" + std::string(ufrag) + "@";
        EXPECT_EQ(wire.compare(invite, requestLine.size(), requestLine), 0) << ufrag;
    }
}

}  // namespace
