// The engine's SDP text edits, over descriptions that did not come from
// webrtcbin: either line ending, missing lines, garbage.
#include <gtest/gtest.h>

#include <random>

#include "sdp_edit.h"

using namespace libwebrtc::media;

namespace {

struct MidCase {
    const char* name;
    std::string in, out;
};

TEST(SdpEdit, AddMissingMids) {
    const MidCase cases[] = {
        {"crlf, none has one", "v=0\r\nm=audio 9 X 8\r\na=rtpmap:8 PCMA/8000\r\nm=video 9 X 96\r\n",
         "v=0\r\nm=audio 9 X 8\r\na=rtpmap:8 PCMA/8000\r\na=mid:0\r\nm=video 9 X "
         "96\r\na=mid:1\r\n"},
        {"lf, second has one", "v=0\nm=audio 9 X 8\nm=video 9 X 96\na=mid:v\n",
         "v=0\nm=audio 9 X 8\na=mid:0\nm=video 9 X 96\na=mid:v\n"},
        {"no final line ending", "m=audio 9 X 8", "m=audio 9 X 8\r\na=mid:0\r\n"},
        {"blank-led m-line, empty mid kept", "  m=audio 9 X 8\r\na=mid:\r\n",
         "  m=audio 9 X 8\r\na=mid:\r\n"},
        {"session-level mid does not count", "a=mid:0\nm=audio 9 X 8\n",
         "a=mid:0\nm=audio 9 X 8\na=mid:0\n"},
        {"mid without value is no mid", "m=audio 9 X 8\na=mid\n",
         "m=audio 9 X 8\na=mid\na=mid:0\n"},
        {"no m-line", "v=0\r\ns=-\r\n", "v=0\r\ns=-\r\n"},
        {"empty", "", ""},
        {"garbage", "\r\r\n\nm\n=m=\n", "\r\r\n\nm\n=m=\n"},
    };
    for (const MidCase& c : cases) EXPECT_EQ(sdp::AddMissingMids(c.in), c.out) << c.name;
}

TEST(SdpEdit, AddCandidates) {
    const std::string two =
        "v=0\r\nm=audio 9 X 8\r\na=candidate:1 1 UDP 9 10.0.0.1 5000 typ host\r\n"
        "m=video 9 X 96\r\n";
    struct Case {
        const char* name;
        std::string in;
        sdp::Candidates add;
        std::string out;
    } cases[] = {
        {"to its own section, once",
         two,
         {{1, "candidate:2 1 UDP 9 10.0.0.1 5002 typ host"},
          {1, "candidate:2 1 UDP 9 10.0.0.1 5002 typ host"}},
         "v=0\r\nm=audio 9 X 8\r\na=candidate:1 1 UDP 9 10.0.0.1 5000 typ host\r\n"
         "m=video 9 X 96\r\na=candidate:2 1 UDP 9 10.0.0.1 5002 typ host\r\n"},
        {"already present", two, {{0, "candidate:1 1 UDP 9 10.0.0.1 5000 typ host"}}, two},
        {"out of range and multi-line ignored",
         two,
         {{2, "candidate:x"}, {7, "candidate:x"}, {0, "candidate:x\r\nm=audio 1 X 0"}},
         two},
        {"without prefix, lf text",
         "m=audio 9 X 8\n",
         {{0, "3 1 UDP 9 h 1 typ host"}},
         "m=audio 9 X 8\na=candidate:3 1 UDP 9 h 1 typ host\n"},
        {"no m-line", "garbage", {{0, "candidate:x"}}, "garbage"},
    };
    for (const Case& c : cases) EXPECT_EQ(sdp::AddCandidates(c.in, c.add), c.out) << c.name;
}

TEST(SdpEdit, FindMsid) {
    struct Case {
        const char* name;
        std::string in;
        unsigned mline;
        bool found;
        const char *stream, *track;
    } cases[] = {
        {"msid", "m=audio 9 X 8\r\na=msid:s t\r\n", 0, true, "s", "t"},
        {"ssrc msid", "m=a 9 X 8\na=ssrc:1 cname:x\na=ssrc:1 msid:s t\n", 0, true, "s", "t"},
        {"stream only", "m=audio 9 X 8\na=msid:s", 0, true, "s", ""},
        {"other section", "m=audio 9 X 8\na=msid:s t\nm=video 9 X 96\n", 1, false, "", ""},
        {"out of range", "m=audio 9 X 8\na=msid:s t\n", 3, false, "", ""},
        {"semantic line is not msid", "a=msid-semantic: WMS\nm=audio 9 X 8\n", 0, false, "", ""},
        {"empty value", "m=audio 9 X 8\na=msid:\na=ssrc:1 msid: \n", 0, false, "", ""},
    };
    for (const Case& c : cases) {
        std::string stream, track;
        EXPECT_EQ(sdp::FindMsid(c.in, c.mline, &stream, &track), c.found) << c.name;
        if (c.found) {
            EXPECT_EQ(stream, c.stream) << c.name;
            EXPECT_EQ(track, c.track) << c.name;
        }
    }
}

// A browser's video m-line as Chromium offers it: VP8 first, rtx, H264 in both
// packetization modes and three profiles, red and ulpfec.
const std::string kBrowserVideo =
    "m=video 9 UDP/TLS/RTP/SAVPF 96 97 102 103 104 108 114 116 39 45 118 120\r\n"
    "a=rtpmap:96 VP8/90000\r\na=rtpmap:97 rtx/90000\r\na=fmtp:97 apt=96\r\n"
    "a=rtpmap:102 H264/90000\r\n"
    "a=fmtp:102 level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=42001f\r\n"
    "a=rtpmap:103 rtx/90000\r\na=fmtp:103 apt=102\r\n"
    "a=rtpmap:104 H264/90000\r\n"
    "a=fmtp:104 level-asymmetry-allowed=1;packetization-mode=0;profile-level-id=42e01f\r\n"
    "a=rtpmap:108 H264/90000\r\n"
    "a=fmtp:108 level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=42e01f\r\n"
    "a=rtpmap:114 h264/90000\r\n"
    "a=fmtp:114 packetization-mode=1;profile-level-id=4d001f\r\n"
    "a=rtpmap:116 H264/90000\r\na=fmtp:116 packetization-mode=1;profile-level-id=f4001f\r\n"
    "a=rtpmap:39 H264/90000\r\na=fmtp:39 packetization-mode=1;profile-level-id=zz001f\r\n"
    "a=rtpmap:45 AV1/90000\r\na=rtpmap:118 red/90000\r\na=rtpmap:120 ulpfec/90000\r\n";

// Which offered format the H264 we send goes out as; the rest is declined.
TEST(SdpEdit, PickH264Payload) {
    const std::string audio = "m=audio 9 UDP/TLS/RTP/SAVPF 111 8\r\na=rtpmap:8 PCMA/8000\r\n";
    const std::string offer = "v=0\r\n" + audio + kBrowserVideo;
    EXPECT_EQ(sdp::PickH264Payload(offer, 1), 108) << "constrained baseline, mode 1";
    EXPECT_EQ(sdp::PickH264Payload(offer, 0), -1) << "audio";
    EXPECT_EQ(sdp::PickH264Payload(offer, 2), -1) << "no such m-line";
    struct Case {
        const char* name;
        std::string video;
        int pt;
    } cases[] = {
        {"baseline before main",
         "m=video 9 X 100 101\na=rtpmap:100 H264/90000\na=fmtp:100 "
         "packetization-mode=1;profile-level-id=4d001f\na=rtpmap:101 H264/90000\n"
         "a=fmtp:101 profile-level-id=42001f;packetization-mode=1\n",
         101},
        {"main flagged constrained baseline counts as such",
         "m=video 9 X 100 101\na=rtpmap:100 H264/90000\na=fmtp:100 "
         "packetization-mode=1;profile-level-id=42001f\na=rtpmap:101 H264/90000\n"
         "a=fmtp:101 packetization-mode=1;profile-level-id=4d801f\n",
         101},
        {"no profile-level-id is the last resort",
         "m=video 9 X 100 101\na=rtpmap:100 H264/90000\na=fmtp:100 packetization-mode=1\n"
         "a=rtpmap:101 H264/90000\na=fmtp:101 packetization-mode=1;profile-level-id=4d001f\n",
         101},
        {"only single-NAL mode or no fmtp",
         "m=video 9 X 100 101\na=rtpmap:100 H264/90000\na=fmtp:100 packetization-mode=0\n"
         "a=rtpmap:101 H264/90000\n",
         -1},
        {"rtpmap for a type not on the m-line",
         "m=video 9 X 100\na=rtpmap:101 H264/90000\n"
         "a=fmtp:101 packetization-mode=1\n",
         -1},
        {"payload types out of range or garbage",
         "m=video 9 X 300 -1 x 1000000000000\na=rtpmap:300 H264/90000\n"
         "a=fmtp:300 packetization-mode=1\n",
         -1},
        {"bare m-line", "m=video", -1},
    };
    for (const Case& c : cases)
        EXPECT_EQ(sdp::PickH264Payload("v=0\n" + c.video, 0), c.pt) << c.name;
}

// The answer's H264 fmtp takes the offer's profile-level-id; nothing else changes.
TEST(SdpEdit, AnswerH264Profile) {
    const std::string offer = "v=0\r\nm=audio 9 X 8\r\n" + kBrowserVideo;
    const std::string answer =
        "v=0\r\nm=audio 9 X 8\r\na=rtpmap:8 PCMA/8000\r\nm=video 9 X 108\r\n"
        "a=rtpmap:108 H264/90000\r\na=fmtp:108 packetization-mode=1;level-asymmetry-allowed=1\r\n"
        "a=sendrecv\r\n";
    std::string expected = answer;
    expected.replace(expected.find("allowed=1\r\n") + 9, 0, ";profile-level-id=42e01f");
    EXPECT_EQ(sdp::AnswerH264Profile(answer, offer), expected);
    EXPECT_EQ(sdp::AnswerH264Profile(expected, offer), expected) << "already has one";
    // The offer's type 39 has a broken profile-level-id, 96 is not H264: left alone.
    for (const char* pt : {"39", "96", "77"}) {
        std::string other = answer;
        for (size_t at; (at = other.find("108")) != std::string::npos;) other.replace(at, 3, pt);
        EXPECT_EQ(sdp::AnswerH264Profile(other, offer), other) << pt;
    }
    EXPECT_EQ(sdp::AnswerH264Profile(answer, "v=0\r\n"), answer) << "offer without m-lines";
    EXPECT_EQ(sdp::AnswerH264Profile("", offer), "");
}

// Random splices of SDP-ish pieces: every edit returns, and keeps the input.
TEST(SdpEdit, RandomTextNeverBreaks) {
    const std::string pieces[] = {"m=audio 9 X 8", "m=",     "a=mid:", "a=msid:", "a=ssrc:1 msid:",
                                  "\r\n",          "\n",     "\r",     " ",       "x",
                                  "a=candidate:",  {"\0", 1}};
    std::mt19937 rng(12);
    for (int i = 0; i < 500; ++i) {
        std::string text;
        for (int n = rng() % 20; n > 0; --n) text += pieces[rng() % 12];
        std::string with_mids = sdp::AddMissingMids(text);
        std::string with_cands = sdp::AddCandidates(text, {{rng() % 3, "candidate:c"}});
        EXPECT_GE(with_mids.size(), text.size());
        EXPECT_GE(with_cands.size(), text.size());
        EXPECT_EQ(sdp::AddMissingMids(with_mids), with_mids) << "mids added twice";
        std::string s, t;
        sdp::FindMsid(text, rng() % 3, &s, &t);
        sdp::PickH264Payload(text, rng() % 3);
        EXPECT_EQ(sdp::AnswerH264Profile(text, text), text);
        sdp::AnswerH264Profile(text, kBrowserVideo + text);
    }
}

}  // namespace
