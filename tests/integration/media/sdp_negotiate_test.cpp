// Offers, answers and applied answers over descriptions from the field (sdp/), and
// over hostile text. Each plan is read back as one line per stream, so a table row
// says what a call would carry.
#include <gst/sdp/sdp.h>
#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <random>
#include <sstream>

#include "negotiate.h"

using namespace libwebrtc::media::sdp;

namespace {

std::string Sample(const std::string& name) {
    std::ifstream in(std::string(ZARNRTC_SDP_SAMPLES) + "/" + name, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_FALSE(text.str().empty()) << name;
    return text.str();
}

// Each (from, to) replaced everywhere, in order; a `from` that is not there fails.
using Edits = std::vector<std::pair<std::string, std::string>>;
std::string Edited(std::string text, const Edits& edits) {
    for (const auto& e : edits) {
        size_t at = text.find(e.first);
        EXPECT_NE(at, std::string::npos) << e.first;
        for (; at != std::string::npos; at = text.find(e.first, at + e.second.size()))
            text.replace(at, e.first.size(), e.second);
    }
    return text;
}

Local Ours() {
    Local l;
    l.ice_ufrag = "oUfR";
    l.ice_pwd = "ourpasswordourpassword12";
    l.fingerprint = "AB:CD:EF:01";
    l.cname = "door";
    l.stream_id = "door_stream";
    l.audio_track_id = "door_audio";
    l.video_track_id = "door_video";
    l.audio_ssrc = 1111;
    l.video_ssrc = 2222;
    l.video_rtx_ssrc = 3333;
    l.session_id = "42";
    l.session_version = "2";
    l.sdes_key = "b3VyIG93biBTUlRQIGtleSBhbmQgc2FsdCwgMzAgYnl0ZQ";
    return l;
}

Capabilities Caps(const std::string& name) {
    Capabilities caps;
    caps.require_encryption = name == "encrypted";
    caps.sdes = name == "sdes";
    if (name == "vp8 first") caps.video_preference = {"VP8", "H264"};
    if (name == "no rtx") caps.rtx = false;
    return caps;
}

// "video RTP/AVPF H264/108 mode 1 rtx/109 nack pli fir sendrecv mux cands 2", or
// "video off: why".
std::string Summary(const StreamPlan& s) {
    if (!s.active) return s.kind + " off: " + s.why_inactive;
    std::ostringstream o;
    o << s.kind << " " << ProfileName(s.profile) << " " << s.send_codec.name << "/"
      << s.send_codec.pt;
    if (s.send_codec.Is("H264")) o << " mode " << s.send_codec.Param("packetization-mode");
    if (s.send_rtx_pt >= 0) o << " rtx/" << s.send_rtx_pt;
    o << (s.nack ? " nack" : "") << (s.pli ? " pli" : "") << (s.fir ? " fir" : "");
    o << (s.send ? (s.receive ? " sendrecv" : " sendonly")
                 : (s.receive ? " recvonly" : " inactive"));
    o << " recv";
    for (const Codec& c : s.receive_codecs) o << " " << c.pt;
    o << (s.rtcp_mux ? " mux" : " rtcp/2");
    if (IsDtls(s.profile)) o << (s.dtls_client ? " dtls-client" : " dtls-server");
    if (s.remote_ice_lite) o << " lite";
    o << " cands " << s.remote_candidates.size();
    return o.str();
}

std::vector<std::string> Summaries(const CallPlan& plan) {
    std::vector<std::string> out;
    for (const StreamPlan& s : plan.streams) out.push_back(Summary(s));
    return out;
}

// Fit for "Warning: 399 host "<why>"": short, lower case, nothing to escape.
void ExpectWarningSafe(const std::string& why, const std::string& context) {
    EXPECT_LT(why.size(), 100u) << context;
    // Lower case, acronyms aside.
    EXPECT_FALSE(why.empty() || (std::isupper(static_cast<unsigned char>(why[0])) &&
                                 std::islower(static_cast<unsigned char>(why[1]))))
        << context << why;
    for (char c : why) EXPECT_TRUE(c >= 0x20 && c < 0x7f && c != '"') << context << ": " << why;
}

// GStreamer's own parser reads the text and writes back the same bytes: CRLF, and
// every line where RFC 8866 puts it.
void ExpectGstreamerReadsBack(const std::string& text) {
    GstSDPMessage* msg = nullptr;
    ASSERT_EQ(gst_sdp_message_new_from_text(text.c_str(), &msg), GST_SDP_OK);
    gchar* again = gst_sdp_message_as_text(msg);
    EXPECT_EQ(std::string(again), text);
    g_free(again);
    gst_sdp_message_free(msg);
}

// Our own offers, answered by ourselves and applied: written text reads back the same
// (ours and GStreamer's parser), and both ends agree on what flows.
TEST(SdpNegotiate, OurOffersRoundTrip) {
    struct Row {
        const char* name;
        OfferOptions options;
        const char* caps;
        bool filled;                   // the transport's candidates written in
        std::vector<std::string> has;  // lines of the written offer
    } rows[] = {
        {"plain",
         {},
         "default",
         true,
         {"m=audio 50000 RTP/AVPF 8 0 101", "c=IN IP4 192.0.2.1", "a=rtcp:50001 IN IP4 192.0.2.1",
          "a=candidate:1 2 udp 2130706430 192.0.2.1 50001 typ host",
          "a=candidate:2 1 udp 1694498815 198.51.100.7 61000 typ srflx raddr 192.0.2.1 rport 50000",
          "a=end-of-candidates", "m=video 9 RTP/AVPF 96 97 98 99", "a=mid:1",
          "a=fmtp:96 level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=42e01f",
          "a=fmtp:97 apt=96", "a=rtcp-fb:98 ccm fir", "a=fmtp:101 0-15", "a=rtcp-mux",
          "a=ssrc-group:FID 2222 3333", "a=ssrc:3333 label:door_video",
          "a=msid:door_stream door_audio", "c=IN IP4 0.0.0.0"}},
        {"dtls",
         {true, true, Direction::kSendRecv, Direction::kSendRecv, true},
         "default",
         false,
         {"m=audio 9 UDP/TLS/RTP/SAVPF 8 0 101", "a=setup:actpass",
          "a=fingerprint:sha-256 AB:CD:EF:01"}},
        {"encryption required makes dtls",
         {},
         "encrypted",
         false,
         {"m=video 9 UDP/TLS/RTP/SAVPF 96 97 98 99"}},
        {"vp8 first, video recvonly",
         {true, true, Direction::kSendRecv, Direction::kRecvOnly, false},
         "vp8 first",
         false,
         {"m=video 9 RTP/AVPF 98 99 96 97", "a=recvonly"}},
        {"audio only",
         {true, false, Direction::kSendRecv, Direction::kSendRecv, false},
         "no rtx",
         false,
         {"m=audio 9 RTP/AVPF 8 0 101", "a=mid:0"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Capabilities caps = Caps(row.caps);
        Description made = MakeOffer(row.options, Ours(), caps);
        if (row.filled) {
            Media& m = made.media[0];
            m.port = 50000;
            m.address = m.rtcp_address = "192.0.2.1";
            m.rtcp_port = 50001;
            Candidate c;
            ASSERT_TRUE(
                ParseCandidate("candidate:1 1 UDP 2130706431 192.0.2.1 50000 typ host", &c));
            m.candidates.push_back(c);
            c.component = 2;
            c.port = 50001;
            c.priority = 2130706430;
            m.candidates.push_back(c);
            ASSERT_TRUE(
                ParseCandidate("a=candidate:2 1 udp 1694498815 198.51.100.7 61000 typ srflx "
                               "raddr 192.0.2.1 rport 50000 generation 0",
                               &c));
            m.candidates.push_back(c);
            m.end_of_candidates = true;
        }
        std::string text = Write(made);
        for (const std::string& line : row.has)
            EXPECT_NE(text.find("\r\n" + line + "\r\n"), std::string::npos) << line << "\n" << text;
        EXPECT_EQ(text.find("BUNDLE"), std::string::npos) << "separate transports";
        ExpectGstreamerReadsBack(text);
        Description offer, answer, applied;
        std::string why;
        ASSERT_TRUE(Parse(text, &offer, &why)) << why;
        EXPECT_EQ(Write(offer), text);
        CallPlan theirs, ours;
        ASSERT_TRUE(AnswerOffer(offer, Ours(), caps, true, true, &answer, &theirs, &why)) << why;
        std::string answer_text = Write(answer);
        ExpectGstreamerReadsBack(answer_text);
        ASSERT_TRUE(Parse(answer_text, &applied, &why));
        ASSERT_TRUE(ApplyAnswer(offer, applied, caps, &ours, &why)) << why;
        ASSERT_EQ(ours.streams.size(), theirs.streams.size());
        EXPECT_TRUE(ours.ice_controlling && !theirs.ice_controlling);
        for (size_t i = 0; i < ours.streams.size(); ++i) {
            const StreamPlan &a = ours.streams[i], &b = theirs.streams[i];
            EXPECT_EQ(a.send, b.receive) << i;
            EXPECT_EQ(a.receive, b.send) << i;
            EXPECT_EQ(a.send_codec.pt, b.send_codec.pt) << i;
            EXPECT_EQ(a.send_rtx_pt, b.send_rtx_pt) << i;
            EXPECT_EQ(a.nack + a.pli + a.fir, b.nack + b.pli + b.fir) << i;
            EXPECT_EQ(a.rtcp_mux, b.rtcp_mux) << i;
            if (IsDtls(a.profile)) {
                EXPECT_NE(a.dtls_client, b.dtls_client) << i;
            }
            if (a.send) {
                EXPECT_EQ(b.remote_stream_id, "door_stream") << i;
            }
        }
    }
    EXPECT_EQ(Write(WithDtls(MakeOffer({}, Ours(), Capabilities()), "AB:CD:EF:01")),
              Write(MakeOffer({true, true, Direction::kSendRecv, Direction::kSendRecv, true},
                              Ours(), Capabilities())))
        << "the offer sent again after a refusal differs only in its security";
}

struct OfferRow {
    const char* name;
    const char* file;
    Edits edits;
    std::string how;                      // "": default capabilities and both tracks
    std::string why;                      // "" when answered
    std::vector<std::string> streams;     // Summary() of each
    std::vector<std::string> answer_has;  // lines of the written answer
};

// What we answer to each offer from the field, and why we refuse what we refuse.
TEST(SdpNegotiate, FieldOffersAnswered) {
    const OfferRow rows[] = {
        {"device stand-in: plain AVPF, BUNDLE, opus and VP8 first",
         "device-style-offer.sdp",
         {},
         "",
         "",
         {"audio RTP/AVPF PCMA/8 sendrecv recv 8 126 mux cands 2",
          "video RTP/AVPF H264/108 mode 1 rtx/109 nack pli fir sendrecv recv 108 109 mux cands 2"},
         {"m=audio 9 RTP/AVPF 8 126", "m=video 9 RTP/AVPF 108 109", "a=mid:1", "a=rtcp-mux",
          "a=fmtp:108 level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=42e01f",
          "a=ssrc-group:FID 2222 3333"}},
        {"device stand-in where encryption is required",
         "device-style-offer.sdp",
         {},
         "encrypted",
         "unencrypted media refused",
         {"audio off: unencrypted media refused", "video off: unencrypted media refused"},
         {}},
        {"device stand-in, opus only",
         "device-style-offer.sdp",
         {{"RTP/AVPF 111 63 9 0 8 13", "RTP/AVPF 111 63 9 13"}},
         "",
         "",
         {"audio off: no audio codec in common",
          "video RTP/AVPF H264/108 mode 1 rtx/109 nack pli fir sendrecv recv 108 109 mux cands 2"},
         {}},
        {"device stand-in, video rejected",
         "device-style-offer.sdp",
         {{"m=video 55238", "m=video 0"}},
         "",
         "",
         {"audio RTP/AVPF PCMA/8 sendrecv recv 8 126 mux cands 2",
          "video off: port 0 in the offer"},
         {"m=video 0 RTP/AVPF 96 97 102"}},
        {"baresip: AVP, session ICE, RTCP on component 2",
         "sip-phone-plain-offer.sdp",
         {},
         "",
         "",
         {"audio RTP/AVP PCMA/8 sendrecv recv 8 101 rtcp/2 cands 2",
          "video RTP/AVP H264/97 mode 1 pli sendrecv recv 97 rtcp/2 cands 2"},
         {"m=audio 9 RTP/AVP 8 101", "a=fmtp:97 packetization-mode=1;profile-level-id=42e01f",
          "a=rtcp-fb:97 nack pli"}},
        {"baresip without H264 mode 1: VP8 before single NAL units",
         "sip-phone-plain-offer.sdp",
         {{"packetization-mode=1", "packetization-mode=2"}},
         "",
         "",
         {"audio RTP/AVP PCMA/8 sendrecv recv 8 101 rtcp/2 cands 2",
          "video RTP/AVP VP8/100 pli sendrecv recv 100 rtcp/2 cands 2"},
         {"m=video 9 RTP/AVP 100"}},
        {"baresip as ice-lite",
         "sip-phone-plain-offer.sdp",
         {{"a=ice-ufrag:tuukFbe", "a=ice-lite\na=ice-ufrag:tuukFbe"}},
         "no camera",
         "",
         {"audio RTP/AVP PCMA/8 sendrecv recv 8 101 rtcp/2 lite cands 2",
          "video RTP/AVP H264/97 mode 1 pli recvonly recv 97 rtcp/2 lite cands 2"},
         {"a=recvonly"}},
        {"webrtcbin DTLS, bundled video without candidates",
         "webrtcbin-dtls-offer.sdp",
         {},
         "",
         "",
         {"audio UDP/TLS/RTP/SAVPF PCMA/8 sendrecv recv 8 mux dtls-client cands 3",
          "video UDP/TLS/RTP/SAVPF H264/96 mode 1 pli fir sendrecv recv 96 mux dtls-client cands "
          "0"},
         {"a=setup:active", "a=mid:video1",
          "a=fmtp:96 level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=42c016"}},
        {"SIP video phone: DTLS at session level, no mid, no direction",
         "sip-video-phone-dtls-offer.sdp",
         {},
         "",
         "",
         {"audio UDP/TLS/RTP/SAVP PCMA/8 sendrecv recv 8 101 rtcp/2 dtls-client cands 2",
          "video UDP/TLS/RTP/SAVP VP8/100 pli fir sendrecv recv 100 rtcp/2 dtls-client cands 2"},
         {"m=video 9 UDP/TLS/RTP/SAVP 100", "a=setup:active", "a=fmtp:101 0-16"}},
        {"SIP video phone without VP8: H264 in single NAL units",
         "sip-video-phone-dtls-offer.sdp",
         {{"SAVP 100 96", "SAVP 96"}, {"a=setup:actpass", "a=setup:active"}},
         "",
         "",
         {"audio UDP/TLS/RTP/SAVP PCMA/8 sendrecv recv 8 101 rtcp/2 dtls-server cands 2",
          "video UDP/TLS/RTP/SAVP H264/96 mode 0 pli fir sendrecv recv 96 rtcp/2 dtls-server cands "
          "2"},
         {"a=fmtp:96 profile-level-id=42801F", "a=setup:passive"}},
        {"SIP video phone without a=setup: it is active",
         "sip-video-phone-dtls-offer.sdp",
         {{"a=setup:actpass\r\n", ""}, {"m=video 40002", "m=video 0"}},
         "",
         "",
         {"audio UDP/TLS/RTP/SAVP PCMA/8 sendrecv recv 8 101 rtcp/2 dtls-server cands 2",
          "video off: port 0 in the offer"},
         {"a=setup:passive"}},
        {"SIP video phone without fingerprint",
         "sip-video-phone-dtls-offer.sdp",
         {{"a=fingerprint:", "a=x-fingerprint:"}},
         "",
         "no DTLS fingerprint",
         {"audio off: no DTLS fingerprint", "video off: no DTLS fingerprint"},
         {}},
        {"Chromium DTLS: mDNS and TCP candidates skipped",
         "chromium-dtls-offer.sdp",
         {},
         "no camera",
         "",
         {"audio UDP/TLS/RTP/SAVPF PCMA/8 sendrecv recv 8 126 mux dtls-client cands 2",
          "video UDP/TLS/RTP/SAVPF H264/108 mode 1 rtx/109 nack pli fir recvonly recv 108 109 mux "
          "dtls-client cands 2"},
         {"a=recvonly", "a=ssrc:1111 cname:door"}},
        {"browser without H264",
         "browser-no-h264-offer.sdp",
         {},
         "",
         "",
         {"audio UDP/TLS/RTP/SAVPF PCMA/8 sendrecv recv 8 126 mux dtls-client cands 2",
          "video UDP/TLS/RTP/SAVPF VP8/96 rtx/97 nack pli fir sendrecv recv 96 97 mux dtls-client "
          "cands 2"},
         {"m=video 9 UDP/TLS/RTP/SAVPF 96 97", "a=rtpmap:96 VP8/90000"}},
        {"browser bundle-only video, data channel, second audio",
         "browser-no-h264-offer.sdp",
         {{"m=video 55238 UDP/TLS/RTP/SAVPF 96 97 45", "m=video 0 UDP/TLS/RTP/SAVPF 96 97 45"},
          {" 118 119 120\n", " 118 119 120\na=bundle-only\n"},
          {"a=ssrc:2841536756 cname:mMhe9LNRk3MAgC3B",
           "m=application 9 UDP/DTLS/SCTP webrtc-datachannel\nm=audio 9 RTP/AVP 0\n"
           "a=ssrc:2841536756 cname:mMhe9LNRk3MAgC3B"}},
         "",
         "",
         {"audio UDP/TLS/RTP/SAVPF PCMA/8 sendrecv recv 8 126 mux dtls-client cands 2",
          "application off: application not supported", "audio off: extra audio section",
          "video off: bundle-only in the offer"},
         {"m=application 0 UDP/DTLS/SCTP webrtc-datachannel", "m=audio 0 RTP/AVP 0"}},
        {"Plan B device: names from a=ssrc, mids by kind",
         "planb-device-offer.sdp",
         {},
         "",
         "",
         {"audio RTP/AVPF PCMA/8 sendrecv recv 8 126 mux cands 1",
          "video RTP/AVPF H264/96 mode 1 nack pli fir sendrecv recv 96 mux cands 1"},
         {"a=mid:audio", "a=mid:video", "m=video 9 RTP/AVPF 96"}},
        {"Plan B device, VP8 preferred",
         "planb-device-offer.sdp",
         {},
         "vp8 first",
         "",
         {"audio RTP/AVPF PCMA/8 sendrecv recv 8 126 mux cands 1",
          "video RTP/AVPF VP8/100 rtx/101 nack pli fir sendrecv recv 100 101 mux cands 1"},
         {"a=fmtp:101 apt=100"}},
        {"SDES refused by default",
         "sdes-offer.sdp",
         {},
         "",
         "SDES-SRTP not supported",
         {"audio off: SDES-SRTP not supported"},
         {}},
        {"SDES taken when enabled: the suite without MKI",
         "sdes-offer.sdp",
         {},
         "sdes",
         "",
         {"audio RTP/SAVP PCMA/8 sendrecv recv 8 101 rtcp/2 cands 1"},
         {"a=crypto:2 AES_CM_128_HMAC_SHA1_32 "
          "inline:b3VyIG93biBTUlRQIGtleSBhbmQgc2FsdCwgMzAgYnl0ZQ"}},
        {"no ICE at all",
         "no-ice-offer.sdp",
         {},
         "",
         "no ICE credentials",
         {"audio off: no ICE credentials", "video off: no ICE credentials"},
         {}},
        {"no codec in common at all",
         "no-ice-offer.sdp",
         {{"8 0 101", "18"}, {"VP8", "H263"}, {"t=0 0", "t=0 0\na=ice-ufrag:u\na=ice-pwd:p"}},
         "",
         "no audio or video codec in common",
         {"audio off: no audio codec in common", "video off: no video codec in common"},
         {}},
        {"TCP media",
         "no-ice-offer.sdp",
         {{"RTP/AVP", "TCP/RTP/AVP"}},
         "",
         "unsupported protocol TCP/RTP/AVP",
         {},
         {}},
    };
    for (const OfferRow& row : rows) {
        SCOPED_TRACE(row.name);
        std::string text = Edited(Sample(row.file), row.edits);
        Description offer, answer;
        CallPlan plan;
        std::string why;
        ASSERT_TRUE(Parse(text, &offer, &why)) << why;
        bool ok = AnswerOffer(offer, Ours(), Caps(row.how), true, row.how != "no camera", &answer,
                              &plan, &why);
        EXPECT_EQ(ok, row.why.empty());
        EXPECT_EQ(ok ? std::string() : why, row.why);
        if (row.how == "" || row.how == "no camera") {
            EXPECT_EQ(Unusable(text), row.why);
        }
        if (!ok) ExpectWarningSafe(why, row.name);
        if (!row.streams.empty()) {
            EXPECT_EQ(Summaries(plan), row.streams);
        }
        if (!ok) continue;
        std::string answer_text = Write(answer);
        for (const std::string& line : row.answer_has)
            EXPECT_NE(answer_text.find("\r\n" + line), std::string::npos) << line << "\n"
                                                                          << answer_text;
        EXPECT_EQ(answer_text.find("a=mid:") != std::string::npos, !offer.media[0].mid.empty());
        ExpectGstreamerReadsBack(answer_text);
        EXPECT_EQ(UnusableAnswer(text, answer_text), "") << "the offerer can use our answer";
    }
}

TEST(SdpNegotiate, FarEndNamesItsTracks) {
    struct Row {
        Edits edits;
        const char* stream;
        const char* track;
    } rows[] = {
        {{}, "door_stream", "door_video"},
        {{{"a=ssrc:2864434397 msid:", "a=ssrc:2864434397 x-msid:"},
          {"a=ssrc:4008636142 msid:", "a=ssrc:4008636142 x-msid:"}},
         "door_stream",
         "door_video"},  // mslabel/label
        {{{"a=mid:video", "a=mid:video\r\na=msid:s1 t1"}}, "s1", "t1"},
    };
    for (const Row& row : rows) {
        Description offer, answer;
        CallPlan plan;
        ASSERT_TRUE(Parse(Edited(Sample("planb-device-offer.sdp"), row.edits), &offer, nullptr));
        ASSERT_TRUE(
            AnswerOffer(offer, Ours(), Capabilities(), true, true, &answer, &plan, nullptr));
        EXPECT_EQ(plan.streams[1].remote_stream_id, row.stream);
        EXPECT_EQ(plan.streams[1].remote_track_id, row.track);
    }
}

// What the far ends' answers to our offer leave us with.
TEST(SdpNegotiate, AnswersToOurOffer) {
    const std::string dtls_lines =
        "a=ice-options:trickle\r\na=fingerprint:sha-256 "
        "3B:9E:61:0C:55:7A:2F:D4:8E:13:C0:6B:99:A2:47:E5:1D:F8:30:6C:B4:72:E9:05:8A:DD:16:4F:C3:2B:"
        "70:9E\r\na=setup:active\r\n";
    const Edits to_dtls = {{"RTP/AVPF", "UDP/TLS/RTP/SAVPF"},
                           {"a=ice-options:trickle\r\n", dtls_lines}};
    struct Row {
        const char* name;
        bool dtls_offer;
        const char* file;
        Edits edits;
        std::string why;
        std::vector<std::string> streams;
    } rows[] = {
        {"Chromium without encryption",
         false,
         "chromium-plain-answer.sdp",
         {},
         "",
         {"audio RTP/AVPF PCMA/8 sendrecv recv 8 0 101 mux cands 2",
          "video RTP/AVPF H264/96 mode 1 rtx/97 nack pli fir sendrecv recv 96 97 98 99 mux cands "
          "1"}},
        {"Chromium answering the DTLS variant, setup:active",
         false,
         "chromium-plain-answer.sdp",
         to_dtls,
         "",
         {"audio UDP/TLS/RTP/SAVPF PCMA/8 sendrecv recv 8 0 101 mux dtls-server cands 2",
          "video UDP/TLS/RTP/SAVPF H264/96 mode 1 rtx/97 nack pli fir sendrecv recv 96 97 98 99 "
          "mux "
          "dtls-server cands 1"}},
        {"Chromium, DTLS, setup:passive, no camera",
         true,
         "chromium-plain-answer.sdp",
         {to_dtls[0],
          to_dtls[1],
          {"a=setup:active", "a=setup:passive"},
          {"a=mid:1\r\na=sendrecv", "a=mid:1\r\na=recvonly"}},
         "",
         {"audio UDP/TLS/RTP/SAVPF PCMA/8 sendrecv recv 8 0 101 mux dtls-client cands 2",
          "video UDP/TLS/RTP/SAVPF H264/96 mode 1 rtx/97 nack pli fir sendonly recv 96 97 98 99 "
          "mux "
          "dtls-client cands 1"}},
        {"Chromium rejecting video",
         true,
         "chromium-plain-answer.sdp",
         {to_dtls[0], to_dtls[1], {"m=video 55918", "m=video 0"}},
         "",
         {"audio UDP/TLS/RTP/SAVPF PCMA/8 sendrecv recv 8 0 101 mux dtls-server cands 2",
          "video off: port 0 in the answer"}},
        {"baresip: RTCP on component 2, VP8 only",
         false,
         "baresip-plain-answer.sdp",
         {},
         "",
         {"audio RTP/AVPF PCMA/8 sendrecv recv 8 0 101 rtcp/2 cands 2",
          "video RTP/AVPF VP8/98 pli sendrecv recv 96 97 98 99 rtcp/2 cands 2"}},
        {"plain answer to the DTLS offer",
         true,
         "chromium-plain-answer.sdp",
         {},
         "answer downgrades to unencrypted media",
         {}},
        {"payload type never offered",
         false,
         "chromium-plain-answer.sdp",
         {{"RTP/AVPF 96 97 98 99", "RTP/AVPF 96 97 98 99 100"}},
         "answer uses payload type 100 that was not offered",
         {}},
        {"SDES answer to a plain offer",
         false,
         "baresip-plain-answer.sdp",
         {{"RTP/AVPF", "RTP/SAVPF"}},
         "answer uses a profile that was not offered",
         {}},
        {"no ICE credentials",
         false,
         "baresip-plain-answer.sdp",
         {{"a=ice-ufrag:pQ2k", ""}},
         "no ICE credentials",
         {}},
        {"no codec we send",
         false,
         "baresip-plain-answer.sdp",
         {{"RTP/AVPF 8 101", "RTP/AVPF 101"}, {"RTP/AVPF 98", "RTP/AVPF 99"}},
         "no audio codec in common",
         {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        OfferOptions options;
        options.dtls = row.dtls_offer;
        std::string offer_text = Write(MakeOffer(options, Ours(), Capabilities()));
        std::string answer_text = Edited(Sample(row.file), row.edits);
        Description offer, answer;
        CallPlan plan;
        std::string why;
        ASSERT_TRUE(Parse(offer_text, &offer, nullptr));
        ASSERT_TRUE(Parse(answer_text, &answer, &why)) << why;
        bool ok = ApplyAnswer(offer, answer, Capabilities(), &plan, &why);
        EXPECT_EQ(ok ? std::string() : why, row.why);
        EXPECT_EQ(UnusableAnswer(offer_text, answer_text), row.why);
        if (ok) {
            EXPECT_EQ(Summaries(plan), row.streams);
        }
        if (!ok) ExpectWarningSafe(why, row.name);
    }
    const std::string offer = Write(MakeOffer({}, Ours(), Capabilities()));
    EXPECT_EQ(UnusableAnswer(offer, "v=0\r\ns=-\r\n"), "no media in the answer");
    EXPECT_EQ(UnusableAnswer("", Sample("baresip-plain-answer.sdp")), "our offer: not SDP");
}

// The engines name a call by its own ICE fragments, and watch a far end that says
// it sends.
TEST(SdpNegotiate, UfragsAndWhetherTheFarEndSends) {
    const std::string m = " 9 RTP/AVPF 8\r\n";
    EXPECT_EQ(IceUfrags("a=ice-ufrag:s\r\nm=audio" + m + "a=ice-ufrag:a\r\nm=video" + m +
                        " a=ice-ufrag:a\na=ice-ufrag:\r\n"),
              (std::vector<std::string>{"s", "a"}));
    EXPECT_TRUE(IceUfrags("a=ice-ufragment:x\n").empty());
    struct {
        const char* name;
        std::string text;
        bool sends;
    } cases[] = {
        {"no direction is sendrecv", "v=0\r\nm=audio" + m, true},
        {"recvonly audio, sendonly video",
         "v=0\r\nm=audio" + m + "a=recvonly\r\nm=video" + m + "a=sendonly\r\n", true},
        {"session inactive, media silent", "v=0\r\na=inactive\r\nm=audio" + m, false},
        {"session recvonly, media sendrecv", "v=0\r\na=recvonly\r\nm=audio" + m + "a=sendrecv\r\n",
         true},
        {"only a rejected section sends",
         "v=0\r\nm=audio 0 RTP/AVP 8\r\nm=video" + m + "a=recvonly", false},
        {"DTLS counts as plain does", "v=0\nm=video 9 UDP/TLS/RTP/SAVPF 96\n", true},
        {"TCP does not count", "v=0\r\nm=audio 9 TCP/RTP/AVP 8\r\n", false},
        {"not SDP", "m=audio" + m, false},
    };
    for (const auto& c : cases) EXPECT_EQ(SendsMedia(c.text), c.sends) << c.name;
}

// Broken text: refused with a reason, or read within the bounds.
TEST(SdpNegotiate, HostileText) {
    const std::string head = "v=0\r\nt=0 0\r\na=ice-ufrag:u\r\na=ice-pwd:p\r\n";
    auto repeat = [](const std::string& s, int n) {
        std::string out;
        for (int i = 0; i < n; ++i) out += s;
        return out;
    };
    std::string sources, fb_values;
    for (int i = 0; i < 200; ++i) fb_values += "a=rtcp-fb:* x" + std::to_string(i) + "\r\n";
    for (int i = 1; i <= 1000; ++i) sources += "a=ssrc:" + std::to_string(i) + " cname:x\r\n";
    struct Row {
        const char* name;
        std::string text;
        std::string why;  // of Unusable
    } rows[] = {
        {"empty", "", "not SDP"},
        {"garbage", "hello\r\nm=audio 9 RTP/AVP 0", "not SDP"},
        {"control bytes", std::string("v=0\r\n\x01m=audio 9 RTP/AVP 0\r\n"),
         "control bytes in the description"},
        {"NUL", std::string("v=0\r\n\0", 6), "control bytes in the description"},
        {"huge", "v=0\r\n" + std::string(70000, 'a'), "description too large"},
        {"10000 candidates",
         head + "m=audio 9 RTP/AVP 8\r\n" +
             repeat("a=candidate:1 1 udp 1 10.0.0.1 1 typ host\r\n", 10000),
         "description too large"},
        {"truncated m-line", head + "m=audio", "bad m-line 1"},
        {"absurd port", head + "m=audio 9 RTP/AVP 8\r\nm=video 70000 RTP/AVP 96\r\n",
         "bad m-line 2"},
        {"negative port", head + "m=audio -9 RTP/AVP 8\r\n", "bad m-line 1"},
        {"nine sections", head + repeat("m=audio 9 RTP/AVP 8\r\n", 9), "too many media sections"},
        {"absurd payload types, PCMA among them",
         head + "m=audio 9 RTP/AVP 300 -1 x 99999999999 8\r\n", ""},
        {"truncated lines",
         head + "m=audio 9 RTP/AVP 8\r\na=rtpmap:8\r\na=fmtp:\r\na=candidate:1 1\r\n", ""},
        {"only an rtpmap for an unlisted type",
         head + "m=audio 9 RTP/AVP 96\r\na=rtpmap:8 PCMA/8000\r\n", "no audio codec in common"},
        {"1400 candidates",
         head + "m=audio 9 RTP/AVP 8\r\n" +
             repeat("a=candidate:1 1 udp 1 10.0.0.1 1 typ host\r\n", 1400),
         ""},
        {"repeated attributes",
         head + "m=audio 9 RTP/AVPF 8\r\n" + repeat("a=rtcp-fb:8 nack\r\na=ice-ufrag:v\r\n", 1000) +
             fb_values + sources,
         ""},
        {"tabs, blanks, CR-only line ends",
         "\r\n  v=0\rt=0 0\ra=ice-ufrag:u\ra=ice-pwd:p\r\tm=audio\t9  RTP/AVP \t8\r", ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(Unusable(row.text), row.why);
        Description d;
        if (!Parse(row.text, &d, nullptr)) continue;
        for (const Media& m : d.media) {
            EXPECT_LE(m.candidates.size(), 32u);
            EXPECT_LE(m.sources.size(), 16u);
            for (const Codec& c : m.codecs) EXPECT_LE(c.feedback.size(), 16u);
        }
        Description again;
        EXPECT_TRUE(Parse(Write(d), &again, nullptr));
    }
    // Repeated attributes: the first counts, lists stop at their bound.
    Description d;
    ASSERT_TRUE(Parse(rows[14].text, &d, nullptr));
    EXPECT_EQ(d.media[0].ice_ufrag, "v");
    EXPECT_EQ(d.media[0].codecs[0].feedback.size(), 16u);
    EXPECT_EQ(d.media[0].codecs[0].feedback[1], "x0");
    EXPECT_EQ(d.media[0].sources.size(), 16u);
}

// Random splices, cuts and byte changes of the field's descriptions: every function
// returns, with a reason fit for the wire.
TEST(SdpNegotiate, RandomSplicesOfTheFieldNeverBreak) {
    std::vector<std::string> lines;
    for (const char* f : {"device-style-offer.sdp", "sip-phone-plain-offer.sdp",
                          "webrtcbin-dtls-offer.sdp", "sip-video-phone-dtls-offer.sdp",
                          "planb-device-offer.sdp", "sdes-offer.sdp", "baresip-plain-answer.sdp"}) {
        std::istringstream in(Sample(f));
        for (std::string line; std::getline(in, line);) lines.push_back(line);
    }
    const std::string our_offer = Write(MakeOffer({}, Ours(), Capabilities()));
    std::mt19937 rng(23);
    for (int i = 0; i < 3000; ++i) {
        std::string text = "v=0\r\n";
        for (int n = rng() % 60; n > 0; --n) text += lines[rng() % lines.size()] + "\r\n";
        if (rng() % 3 == 0) text.resize(rng() % (text.size() + 1));
        for (int flips = rng() % 4; flips > 0 && !text.empty(); --flips)
            text[rng() % text.size()] = static_cast<char>(0x20 + rng() % 0x5f);
        SCOPED_TRACE(text.substr(0, 300));
        Description d, answer;
        CallPlan plan;
        std::string why;
        if (Parse(text, &d, &why)) {
            Capabilities caps = Caps(rng() % 2 ? "sdes" : "default");
            if (AnswerOffer(d, Ours(), caps, true, true, &answer, &plan, &why))
                EXPECT_TRUE(Parse(Write(answer), &d, &why)) << why;
            else
                ExpectWarningSafe(why, "answer");
        }
        for (const std::string& r : {Unusable(text), UnusableAnswer(our_offer, text)})
            if (!r.empty()) ExpectWarningSafe(r, "quick check");
        IceUfrags(text);
        SendsMedia(text);
    }
}

}  // namespace
