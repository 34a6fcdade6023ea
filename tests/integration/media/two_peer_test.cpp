// Two engine peer connections in one process, driven the way the SDK drives
// them: non-trickle offer/answer over the SDP text only.
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

#include "media_test_util.h"

using namespace mediatest;

namespace {

// A short 8 kHz mono WAV of a tone, for audioPlay.
std::string WriteWav() {
    std::string path = ::testing::TempDir() + "media_tone.wav";
    const uint32_t rate = 8000, samples = rate / 2;
    std::ofstream f(path, std::ios::binary);
    auto u32 = [&](uint32_t v) { f.write(reinterpret_cast<const char*>(&v), 4); };
    auto u16 = [&](uint16_t v) { f.write(reinterpret_cast<const char*>(&v), 2); };
    f.write("RIFF", 4);
    u32(36 + samples * 2);
    f.write("WAVEfmt ", 8);
    u32(16);
    u16(1);
    u16(1);
    u32(rate);
    u32(rate * 2);
    u16(2);
    u16(16);
    f.write("data", 4);
    u32(samples * 2);
    for (uint32_t i = 0; i < samples; ++i) u16(static_cast<uint16_t>((i % 16) * 1000));
    return path;
}

}  // namespace

TEST(MediaEngine, FactoryIsOnePerProcess) {
    auto a = Factory();
    auto b = Factory();
    ASSERT_TRUE(a);
    EXPECT_EQ(a.get(), b.get());
    EXPECT_TRUE(LibWebRTC::Initialize());
}

// The SDK's whole exchange, plus the odd events it produces on the way.
TEST(MediaEngine, TwoPeersExchangeVideoAndAudio) {
    auto factory = Factory();
    Endpoint caller(factory, 320, 240);
    Endpoint callee(factory, 640, 480);

    EXPECT_FALSE(caller.pc->GetLocalDescription());
    EXPECT_TRUE(caller.pc->GetVideoSender("video_label"));
    EXPECT_FALSE(caller.pc->GetVideoSender("other"));
    EXPECT_FALSE(caller.pc->GetAudioReceiver());

    auto start = Clock::now();
    std::string offer = caller.Negotiate(true);
    auto gathered = caller.observer.complete_at - start;
    ASSERT_FALSE(offer.empty());
    // Host candidates only: gathering ends in milliseconds on an idle machine; the
    // bound catches a wait for a server timeout, with room for a loaded CI machine.
    EXPECT_LT(gathered, std::chrono::milliseconds(5000));
    EXPECT_GE(CountLines(offer, "a=candidate"), 1) << offer;
    // The test environment allows loopback only (ZARNRTC_MEDIA_ADDRESSES).
    EXPECT_EQ(CountLines(offer, "a=candidate"), CountLines(offer, "a=candidate:", " 127.0.0.1 "))
        << offer;
    EXPECT_EQ(CountLines(offer, "m=audio"), 1);
    EXPECT_EQ(CountLines(offer, "m=video"), 1);
    EXPECT_GE(CountLines(offer, "a=ssrc:"), 2) << "offer made before encoder caps";
    EXPECT_EQ(CountLines(offer, "a=group:BUNDLE"), 0) << "max-compat must not bundle";
    std::vector<RTCIceGatheringState> states;
    caller.observer.WaitFor(0, [&] {
        states = caller.observer.gathering;
        return true;
    });
    EXPECT_EQ(states, (std::vector<RTCIceGatheringState>{RTCIceGatheringStateGathering,
                                                         RTCIceGatheringStateComplete}));

    // The SDK sets the offer and asks for the answer without waiting.
    callee.SetRemote(offer, "offer");
    std::string answer = callee.Negotiate(false);
    ASSERT_FALSE(answer.empty());
    EXPECT_EQ(CountLines(answer, "a=sendrecv"), 2) << answer;
    EXPECT_GE(CountLines(answer, "a=candidate"), 1);

    SdpResult first, second;
    caller.SetRemote(answer, "answer", &first);
    ASSERT_TRUE(first.Wait());
    EXPECT_TRUE(first.error.empty()) << first.error;
    // Early media then the final answer: the repeat fails quietly.
    caller.SetRemote(answer, "answer", &second);
    ASSERT_TRUE(second.Wait());
    EXPECT_FALSE(second.error.empty());

    EXPECT_TRUE(callee.remote_frames.WaitFrames(3, 3000)) << "caller's video not at callee";
    EXPECT_TRUE(caller.remote_frames.WaitFrames(3, 3000)) << "callee's video not at caller";
    EXPECT_EQ(callee.remote_frames.width, 320);
    EXPECT_EQ(callee.remote_frames.height, 240);
    EXPECT_EQ(caller.remote_frames.width, 640);
    EXPECT_EQ(caller.remote_frames.height, 480);
    for (Endpoint* e : {&caller, &callee}) {
        EXPECT_TRUE(e->observer.WaitFor(3000, [&] { return e->observer.audio_tracks == 1; }));
        EXPECT_TRUE(e->observer.video_track);
        EXPECT_TRUE(e->pc->GetAudioReceiver());
        EXPECT_TRUE(e->pc->GetVideoReceiver());
    }

    // A file mixed into the sent audio does not disturb the call.
    callee.pc->GetAudioReceiver()->audioPlay(WriteWav().c_str());
    callee.pc->GetAudioReceiver()->audioPlay("/nonexistent.wav");

    // A disabled local track stops feeding the far end.
    caller.video->set_enabled(false);
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    int before = callee.remote_frames.Frames();
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    EXPECT_LE(callee.remote_frames.Frames() - before, 1);
    EXPECT_TRUE(caller.remote_frames.WaitFrames(caller.remote_frames.Frames() + 3, 2000));
}

// Descriptions the engine cannot use fail through the handler, nothing else.
TEST(MediaEngine, BadDescriptionsFailThroughHandlers) {
    auto factory = Factory();
    Endpoint e(factory, 160, 120);
    SdpResult garbage, missing_offer, bad_type;
    e.SetRemote("this is not sdp", "offer", &garbage);
    ASSERT_TRUE(garbage.Wait());
    EXPECT_FALSE(garbage.error.empty());

    e.pc->CreateAnswer([&](const char* sdp, const char*) { missing_offer.Set(sdp, nullptr); },
                       [&](const char* err) { missing_offer.Set(nullptr, err); },
                       RTCMediaConstraints::Create());
    ASSERT_TRUE(missing_offer.Wait());
    EXPECT_FALSE(missing_offer.error.empty());

    e.pc->SetLocalDescription("v=0\r\n", "rollback", nullptr,
                              [&](const char* err) { bad_type.Set(nullptr, err); });
    ASSERT_TRUE(bad_type.Wait());
    EXPECT_FALSE(bad_type.error.empty());
    e.pc->AddCandidate("0", 0, nullptr);
    EXPECT_FALSE(e.pc->GetLocalDescription());
}

// An offer as an older or foreign peer writes it: LF line ends, no a=mid, no
// final line ending. Mids are added where GStreamer's parser sees the m-lines,
// so both are answered.
TEST(MediaEngine, ForeignOfferTextIsAnswered) {
    auto factory = Factory();
    Endpoint caller(factory, 160, 120), callee(factory, 160, 120);
    std::string offer = caller.Negotiate(true);
    ASSERT_FALSE(offer.empty());
    std::string foreign;
    std::istringstream in(offer);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.rfind("a=mid:", 0) == 0 || line.rfind("a=group:", 0) == 0) continue;
        foreign += (foreign.empty() ? "" : "\n") + line;
    }
    SdpResult applied;
    callee.SetRemote(foreign, "offer", &applied);
    ASSERT_TRUE(applied.Wait());
    EXPECT_TRUE(applied.error.empty()) << applied.error;
    std::string answer = callee.Negotiate(false);
    EXPECT_EQ(CountLines(answer, "a=sendrecv"), 2) << answer;
    EXPECT_EQ(CountLines(answer, "a=mid:0"), 1) << answer;
    EXPECT_EQ(CountLines(answer, "a=mid:1"), 1) << answer;
}

namespace {

// Our offer rewritten as Chromium writes one: BUNDLE, extmap, opus and
// telephone-event before PCMA, VP8 first, rtx, red, ulpfec, H264 in
// packetization mode 0 and our H264 renumbered to 108 with a profile-level-id;
// one set of ICE credentials for all, as bundled sections have.
std::string AsBrowserOffer(const std::string& offer) {
    std::string out, mids, ufrag, pwd;
    for (std::istringstream in(offer); std::getline(in, out);) {
        if (!out.empty() && out.back() == '\r') out.pop_back();
        if (out.rfind("a=mid:", 0) == 0) mids += " " + out.substr(6);
        if (out.rfind("a=ice-ufrag:", 0) == 0 && ufrag.empty()) ufrag = out;
        if (out.rfind("a=ice-pwd:", 0) == 0 && pwd.empty()) pwd = out;
    }
    out.clear();
    std::istringstream in(offer);
    bool video = false, session = true;
    for (std::string line; std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.rfind("m=", 0) == 0 && session) {
            out += "a=group:BUNDLE" + mids + "\r\na=extmap-allow-mixed\r\n";
            session = false;
        }
        if (line.rfind("a=fmtp:96 ", 0) == 0) continue;
        if (line.rfind("a=ice-ufrag:", 0) == 0) line = ufrag;
        if (line.rfind("a=ice-pwd:", 0) == 0) line = pwd;
        if (line.rfind("m=audio ", 0) == 0) {
            video = false;
            line = line.substr(0, line.rfind(' ')) + " 111 8 126";
            line += "\r\na=rtpmap:111 opus/48000/2\r\na=rtpmap:126 telephone-event/8000";
        } else if (line.rfind("m=video ", 0) == 0) {
            video = true;
            line = line.substr(0, line.rfind(' ')) + " 96 97 104 108 109 118 120";
            line +=
                "\r\na=rtpmap:96 VP8/90000\r\na=rtpmap:97 rtx/90000\r\na=fmtp:97 apt=96\r\n"
                "a=rtpmap:104 H264/90000\r\n"
                "a=fmtp:104 "
                "level-asymmetry-allowed=1;packetization-mode=0;profile-level-id=42e01f\r\n"
                "a=fmtp:108 "
                "level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=42e01f\r\n"
                "a=rtpmap:109 rtx/90000\r\na=fmtp:109 apt=108\r\na=rtpmap:118 red/90000\r\n"
                "a=rtpmap:120 ulpfec/90000\r\na=extmap:4 urn:ietf:params:rtp-hdrext:sdes:mid";
        } else if (video) {
            for (const char* attr : {"a=rtpmap:96 ", "a=rtcp-fb:96 "})
                if (line.rfind(attr, 0) == 0) line.replace(line.find("96"), 2, "108");
        }
        out += line + "\r\n";
    }
    return out;
}

}  // namespace

// A browser's offer is answered with what both sides send and receive: H264 in
// packetization mode 1 under the browser's payload type and profile, PCMA; VP8,
// rtx, red, ulpfec and opus declined by leaving them out.
TEST(MediaEngine, BrowserOfferIsAnsweredWithH264) {
    auto factory = Factory();
    Endpoint caller(factory, 160, 120), callee(factory, 160, 120);
    std::string offer = AsBrowserOffer(caller.Negotiate(true));
    ASSERT_EQ(CountLines(offer, "m=video", " 96 97 104 108"), 1) << offer;
    SdpResult applied;
    callee.SetRemote(offer, "offer", &applied);
    ASSERT_TRUE(applied.Wait());
    ASSERT_TRUE(applied.error.empty()) << applied.error;
    std::string answer = callee.Negotiate(false);
    EXPECT_EQ(CountLines(answer, "m=video", " 108\r"), 1) << answer;
    EXPECT_EQ(CountLines(answer, "m=audio", " 8\r"), 1) << answer;
    EXPECT_EQ(CountLines(answer, "a=rtpmap:108 H264/90000"), 1) << answer;
    EXPECT_EQ(CountLines(answer, "a=fmtp:108", "profile-level-id=42e01f"), 1) << answer;
    EXPECT_EQ(CountLines(answer, "a=fmtp:108", "packetization-mode=1"), 1) << answer;
    EXPECT_EQ(CountLines(answer, "a=sendrecv"), 2) << answer;
    for (const char* declined : {"VP8", "rtx", "red", "ulpfec", "opus", "telephone-event"})
        EXPECT_EQ(answer.find(declined), std::string::npos) << declined << "\n" << answer;
}
