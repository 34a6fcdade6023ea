// The SIP engine's text parsing: addresses from the application, SDP, INFO bodies and
// display names from the network. Every input is hostile; nothing may crash or leak
// into a header.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <random>
#include <string>

#include "sip_text.h"

using namespace sipengine;

namespace {

TEST(SipText, AddressesFromTheApplication) {
    struct Case {
        const char* in;
        const char* hostPort;
    };
    const Case cases[] = {
        {nullptr, ""},
        {"", ""},
        {" \t ", ""},
        {"example.org", "example.org"},
        {"  sip:Example.org:5060;transport=tcp ", "Example.org:5060"},
        {"<sips:alice@10.0.0.1:5061>", "10.0.0.1:5061"},
        {"bob@reg_1.example", "reg_1.example"},
        {"[::1]:5060", "[::1]:5060"},
        {"sip:[2001:db8::1]", "[2001:db8::1]"},
        {"::1", ""},
        {"fe80::1", ""},  // IPv6 only in brackets
        {"[::1", ""},
        {"[]", ""},
        {"[::1]x", ""},
        {"[::g]", ""},
        {"host:", ""},
        {"host:0", ""},
        {"host:65535", "host:65535"},
        {"host:65536", ""},
        {"host:99999999999999999999999999", ""},
        {"host:5x", ""},
        {"host:+5", ""},
        {"host:-5", ""},
        {"a@b@c", ""},
        {"sip:", ""},
        {"@", ""},
        {"sip:\thost", ""},
        {"ho\x01st", ""},
        {"host\xff", ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(hostPortOf(c.in), c.hostPort) << (c.in ? c.in : "(null)");
    }
    std::string huge(100000, 'a');
    EXPECT_EQ(hostPortOf(huge.c_str()), huge);

    EXPECT_EQ(transportParam(nullptr), "udp");
    EXPECT_EQ(transportParam(""), "udp");
    EXPECT_EQ(transportParam(" TCP\r\n"), "tcp");
    EXPECT_EQ(transportParam("Udp"), "udp");
    EXPECT_EQ(transportParam("tls"), "");
    EXPECT_EQ(transportParam("tcp;x"), "");
}

TEST(SipText, CalleeBecomesARequestUriOrNothing) {
    struct Case {
        const char* callee;
        const char* domain;
        const char* uri;
    };
    const Case cases[] = {
        {"bob", "reg.example:5060", "sip:bob@reg.example:5060"},
        {" <sip:bob@host;transport=tcp> ", "d", "sip:bob@host;transport=tcp"},
        {"bob@host", "d", "sip:bob@host"},
        {"SIPS:bob@host:5061", "d", "SIPS:bob@host:5061"},
        {"bob", "", ""},
        {"", "d", ""},
        {nullptr, "d", ""},
        {"<>", "d", ""},
        {"bob smith", "d", ""},
        {"bob\r\nX-Evil: 1", "d", ""},
        {"bob\x01", "d", ""},
        {"bob\"", "d", ""},
        {"sip:bob@host>\r\nX: <sip:x", "d", ""},
        {"sip:bob@", "d", ""},
        {"bob@host:99999", "d", ""},
        {"bob;lr", "d", ""},
        {"bob?X=1", "d", ""},
        {"bob:pw", "d", ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(calleeUri(c.callee, c.domain), c.uri) << (c.callee ? c.callee : "(null)");
    }
}

TEST(SipText, MediaKindsOfAnSdp) {
    struct Case {
        const char* sdp;
        bool audio;
        bool video;
    };
    const Case cases[] = {
        {"", false, false},
        {"v=0\r\nm=audio 5004 RTP/AVP 0\r\nm=video 5006 RTP/AVP 96\r\n", true, true},
        {"m=audio 0 RTP/AVP 0\r\nm=video 9 UDP/TLS/RTP/SAVPF 96", false, true},
        {"m=audio 5004/2 RTP/AVP 0", true, false},
        {"m=audio  5004 RTP/AVP 0", true, false},
        {"m=audio 5004\r", true, false},
        {"m=audio 5004", true, false},
        {"\n\n\nm=video 1\n", false, true},
        {"m=audio -5004 RTP/AVP 0", false, false},
        {"m=audio +5004 RTP/AVP 0", false, false},
        {"m=audio 65536 RTP/AVP 0", false, false},
        {"m=audio 99999999999999999999999999 RTP/AVP 0", false, false},
        {"m=audio 5004x RTP/AVP 0", false, false},
        {"m=audio", false, false},
        {"m=", false, false},
        {"m= 5004 RTP/AVP 0", false, false},
        {" m=audio 5004 RTP/AVP 0", false, false},
        {"M=audio 5004 RTP/AVP 0", false, false},
        {"m=application 5000 UDP/DTLS/SCTP webrtc-datachannel", false, false},
        {"m=audiovideo 5004 RTP/AVP 0", false, false},
    };
    for (const Case& c : cases) {
        MediaFlags f = sdpMediaFlags(c.sdp);
        EXPECT_EQ(f.audio, c.audio) << c.sdp;
        EXPECT_EQ(f.video, c.video) << c.sdp;
    }
}

TEST(SipText, AnAnswerToAReofferKeepsTheDtlsRoleInUse) {
    struct Case {
        const char* sdp;
        const char* remote;  // the far end's role in its last answer
        const char* answer;
    };
    const Case cases[] = {
        {"m=audio 9 X\r\na=setup:actpass\r\nm=video 9 X\r\na=setup:actpass\r\n", "active",
         "m=audio 9 X\r\na=setup:passive\r\nm=video 9 X\r\na=setup:passive\r\n"},
        {"a=setup:actpass\n", "passive", "a=setup:active\n"},
        {"a=setup:actpass\n", "", "a=setup:active\n"},             // unknown: answer active
        {"a=setup:passive\r\n", "active", "a=setup:passive\r\n"},  // already an answer
        {"v=0\r\n", "active", "v=0\r\n"},
        {"", "", ""},
    };
    for (const Case& c : cases)
        EXPECT_EQ(sipengine::answerWithRole(c.sdp, c.remote), c.answer) << c.sdp;
    EXPECT_EQ(sipengine::sdpSetupRole("v=0\r\na=setup:Active \r\n"), "active");
    EXPECT_EQ(sipengine::sdpSetupRole("v=0\r\nxa=setup:active\r\n"), "");
    EXPECT_EQ(sipengine::sdpSetupRole("a=setup:"), "");
}

// Which offers the 488 fallback may send again in DTLS-SRTP, and under which name the
// media engine keeps that variant.
TEST(SipText, PlainOffersAndTheirIceFragment) {
    struct Case {
        const char* sdp;
        bool plain;
        const char* ufrag;
    };
    const Case cases[] = {
        {"v=0\r\na=ice-ufrag:dev1\r\nm=audio 39601 RTP/AVPF 111\r\nm=video 56028 RTP/AVPF 96\r\n",
         true, "dev1"},
        {"m=audio 5004 RTP/AVP 0\nm=video 5006 rtp/avpf 96\na=ice-ufrag: v1 \na=ice-ufrag:v2\n",
         true, "v1"},
        // Plain audio, and a data channel that is neither.
        {"m=audio 5004 RTP/AVP 0\r\nm=application 9 UDP/DTLS/SCTP webrtc-datachannel\r\n", true,
         ""},
        {"m=audio 9 UDP/TLS/RTP/SAVPF 111\r\na=ice-ufrag:abcd\r\n", false, "abcd"},
        {"m=audio 9 RTP/AVPF 0\r\nm=video 9 UDP/TLS/RTP/SAVPF 96\r\n", false, ""},
        {"m=audio 9 RTP/SAVP 0\r\na=crypto:1 AES_CM_128_HMAC_SHA1_80 inline:x\r\n", false, ""},
        {"m=application 9 UDP/DTLS/SCTP webrtc-datachannel\r\n", false, ""},
        {"m=audio 9\r\na=ice-ufrag:\r\n", false, ""},
        {"m=audio 9 RTP/AVPFX 0\r\n", false, ""},
        {"", false, ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(sdpPlainRtp(c.sdp), c.plain) << c.sdp;
        EXPECT_EQ(sdpIceUfrag(c.sdp), c.ufrag) << c.sdp;
    }
}

// The media engine's reasons go into quoted header values: they may carry text from
// the far end's description, so nothing may end the quote or the header.
TEST(SipText, ReasonsInWarningAndReasonHeaders) {
    EXPECT_EQ(warningValue("10.0.0.5", "no video codec in common"),
              "399 10.0.0.5 \"no video codec in common\"");
    EXPECT_EQ(reasonValue(488, "unusable answer: no ICE credentials"),
              "SIP ;cause=488 ;text=\"unusable answer: no ICE credentials\"");
    struct Case {
        std::string why;
        std::string text;
    };
    const Case cases[] = {
        {"codec \"VP9\" \\ only", "codec 'VP9' / only"},
        {"a\r\nX-Injected: 1", "a  X-Injected: 1"},
        {"\tleading and trailing blanks \r\n", "leading and trailing blanks"},
        {"caf\xc3\xa9", "caf??"},
        {"", "not acceptable"},
        {" \r\n", "not acceptable"},
        {std::string(500, 'x'), std::string(kMaxReasonText, 'x')},
    };
    for (const Case& c : cases) EXPECT_EQ(reasonText(c.why), c.text) << c.why;
}

TEST(SipText, DtmfInInfoBodies) {
    struct Case {
        const char* type;
        const char* body;
        bool ok;
        int digit;
        int duration;
    };
    const char* relay = "application/dtmf-relay";
    const Case cases[] = {
        {relay, "Signal=5\r\nDuration=160\r\n", true, 5, 160},
        {"Application/DTMF-Relay; charset=x", " signal = * \r\nduration= 100", true, 10, 100},
        {relay, "Signal=#", true, 11, 0},
        {relay, "Signal=d\nDuration=250", true, 15, 250},
        {relay, "Signal=10", true, 10, 0},
        {relay, "Signal=5\r\nSignal=6", true, 6, 0},
        {relay, "Signal=5\r\nDuration=160 ms", true, 5, 160},
        {relay, "Signal=5\r\nDuration=2147483647", true, 5, INT_MAX},
        {relay, "Signal=5\r\nDuration=2147483648", true, 5, 0},
        {relay, "Signal=5\r\nDuration=99999999999999999999999999", true, 5, 0},
        {relay, "Signal=5\r\nDuration=-20", true, 5, 0},
        {relay, "Signal=16", false, 0, 0},
        {relay, "Signal=99999999999999999999999999", false, 0, 0},
        {relay, "Signal=1x", false, 0, 0},
        {relay, "Signal=-1", false, 0, 0},
        {relay, "Signal=E", false, 0, 0},
        {relay, "Signal=\r\nDuration=160", false, 0, 0},
        {relay, "Duration=160", false, 0, 0},
        {relay, "=\n==\n=5\n\n", false, 0, 0},
        {relay, "", false, 0, 0},
        {"application/dtmf", " 7 \r\n", true, 7, 0},
        {"application/dtmf", "77", false, 0, 0},
        {"application/dtmf", "", false, 0, 0},
        {"text/plain", "Signal=5", false, 0, 0},
        {"", "Signal=5", false, 0, 0},
        {"application/dtmf-relayx", "Signal=5", false, 0, 0},
    };
    for (const Case& c : cases) {
        int digit = -1, duration = -1;
        ASSERT_EQ(parseDtmfInfo(c.type, c.body, &digit, &duration), c.ok) << c.body;
        if (!c.ok) continue;
        EXPECT_EQ(digit, c.digit) << c.body;
        EXPECT_EQ(duration, c.duration) << c.body;
    }
}

TEST(SipText, DisplayNamesAndHeaderValues) {
    EXPECT_EQ(headerSafe(nullptr), "");
    EXPECT_EQ(headerSafe(" dev_indoor\r\nX-Evil: 1 "), "dev_indoorX-Evil: 1");
    EXPECT_EQ(headerSafe("a\x01\x7f\tb"), "a\tb");
    EXPECT_EQ(quotedDisplayName("Al \"The\" \\Door\r\n"), "\"Al \\\"The\\\" \\\\Door\"");
    EXPECT_EQ(quotedDisplayName(nullptr), "\"\"");

    struct Case {
        const char* in;
        const char* out;
    };
    const Case cases[] = {
        {nullptr, ""},
        {"Alice", "Alice"},
        {"  \"Alice Door\"  ", "Alice Door"},
        {"\"a\\\"b\"", "a\"b"},
        {"\"\"", ""},
        {"\"", "\""},
        {"\"\\\"", "\\"},
        {"\"unterminated", "\"unterminated"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(unquoteDisplayName(c.in), c.out) << (c.in ? c.in : "(null)");
    }
    // What we quote for a From header reads back as the name we meant.
    for (const char* name : {"Door 1", "a\"b", "back\\slash", "\\\"", "end\\"}) {
        EXPECT_EQ(unquoteDisplayName(quotedDisplayName(name).c_str()), name);
    }
}

// Random bytes (no NUL) through every parser: no crash, no sanitizer report, and
// nothing that could break a header comes out.
TEST(SipText, JunkNeverCrashesOrEscapes) {
    std::mt19937 rng(12);
    const char alphabet[] = "m=audio video 0123456789/\r\n\t ;:@<>\"\\[]sip:Signal=Duration=";
    for (int round = 0; round < 3000; ++round) {
        std::string junk(rng() % 300, ' ');
        for (char& c : junk) {
            c = rng() % 2 ? alphabet[rng() % (sizeof alphabet - 1)]
                          : static_cast<char>(1 + rng() % 255);
        }
        const char* s = junk.c_str();
        std::string hp = hostPortOf(s);
        EXPECT_EQ(hp.find_first_of("\r\n\t <>\"@;"), std::string::npos) << hp;
        std::string uri = calleeUri(s, "example.org");
        for (char c : uri) {
            ASSERT_TRUE(static_cast<unsigned char>(c) > ' ' && c != 0x7f && c != '<' && c != '>' &&
                        c != '"')
                << uri;
        }
        sdpMediaFlags(junk);
        sdpPlainRtp(junk);
        EXPECT_EQ(sdpIceUfrag(junk).find_first_of("\r\n"), std::string::npos);
        std::string warning = warningValue("host", junk);
        EXPECT_EQ(warning.find_first_of("\r\n\\"), std::string::npos) << warning;
        EXPECT_EQ(std::count(warning.begin(), warning.end(), '"'), 2) << warning;
        int digit = -1, duration = -1;
        if (parseDtmfInfo("application/dtmf-relay", junk, &digit, &duration)) {
            EXPECT_TRUE(digit >= 0 && digit <= 15 && duration >= 0);
        }
        EXPECT_EQ(headerSafe(s).find_first_of("\r\n"), std::string::npos);
        std::string quoted = quotedDisplayName(s);
        EXPECT_EQ(quoted.find_first_of("\r\n"), std::string::npos);
        unquoteDisplayName(s);
    }
}

}  // namespace
