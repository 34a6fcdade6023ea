// Two engine peer connections in one process, driven the way the SDK drives
// them: non-trickle offer/answer over the SDP text only.
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

#include "media_test_util.h"
#include "settings_scope.h"

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

    SdpResult first, second, other;
    caller.SetRemote(answer, "answer", &first);
    ASSERT_TRUE(first.Wait());
    EXPECT_TRUE(first.error.empty()) << first.error;
    // Early media then the same final answer: nothing changes. Another answer fails
    // through the handler and the call goes on.
    caller.SetRemote(answer, "answer", &second);
    ASSERT_TRUE(second.Wait());
    EXPECT_TRUE(second.error.empty()) << second.error;
    caller.SetRemote(offer, "answer", &other);
    ASSERT_TRUE(other.Wait());
    EXPECT_FALSE(other.error.empty());

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

    // A renderer attached between two pictures gets the latest one at once, not a
    // frame period later (a call's first picture often comes before the application
    // attaches its renderer). Pictures come every 66 ms and count as fresh for 100:
    // on a loaded machine one attempt in several may find none fresh.
    int handed_over = 0;
    for (int i = 0; i < 10; ++i) {
        FrameCounter late;
        caller.observer.video_track->AddRenderer(&late);
        handed_over += late.Frames() >= 1;
        caller.observer.video_track->RemoveRenderer(&late);
        std::this_thread::sleep_for(std::chrono::milliseconds(37));
    }
    EXPECT_GE(handed_over, 3);

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

namespace {

// Our offer as a peer with no H264 would see it: VP8 (98) and its rtx (99) only.
std::string OnlyVp8(const std::string& offer) {
    std::string out = WithoutLines(offer, {"a=rtpmap:96 ", "a=rtpmap:97 ", "a=fmtp:96 ",
                                           "a=fmtp:97 ", "a=rtcp-fb:96 ", "a=rtcp-fb:97 "});
    size_t m = out.find("m=video ");
    size_t eol = out.find("\r\n", m);
    std::string line = out.substr(m, eol - m);
    line = line.substr(0, line.find(" 96 ")) + " 98 99";
    return out.replace(m, eol - m, line);
}

std::string VideoRejected(const std::string& offer) {
    std::string out = offer;
    size_t m = out.find("m=video ");
    size_t port_end = out.find(' ', m + 8);
    return out.replace(m + 8, port_end - m - 8, "0");
}

struct TransportCase {
    const char* name;
    SrtpType srtp;
    std::string (*edit)(const std::string&);  // what the callee gets of the offer
    const char* codec;                        // expected in the answer, "" for none
    bool video;
};

std::string AsIs(const std::string& s) {
    return s;
}
std::string NoMux(const std::string& s) {
    return WithoutLines(s, {"a=rtcp-mux"});
}

}  // namespace

// Every way a line can travel: plain RTP (as the SDK configures it) or DTLS-SRTP,
// RTCP muxed or on its own component, H264 or VP8, video refused: media both ways.
TEST(MediaEngine, EveryTransportCarriesMediaBothWays) {
    const TransportCase cases[] = {
        {"plain, rtcp-mux", kSRTP_None, AsIs, "H264", true},
        {"plain, RTCP apart", kSRTP_None, NoMux, "H264", true},
        {"DTLS-SRTP, rtcp-mux", kDTLS_SRTP, AsIs, "H264", true},
        {"DTLS-SRTP, RTCP apart", kDTLS_SRTP, NoMux, "H264", true},
        {"plain, VP8 only", kSRTP_None, OnlyVp8, "VP8", true},
        {"DTLS-SRTP, VP8 only", kDTLS_SRTP, OnlyVp8, "VP8", true},
        {"plain, video refused", kSRTP_None, VideoRejected, "", false},
    };
    auto factory = Factory();
    for (const TransportCase& c : cases) {
        SCOPED_TRACE(c.name);
        RTCConfiguration config = SdkConfiguration();
        config.srtp_type = c.srtp;
        Endpoint caller(factory, 320, 240, config), callee(factory, 160, 120);
        std::string offer = caller.Negotiate(true);
        ASSERT_FALSE(offer.empty());
        EXPECT_EQ(CountLines(offer, "m=", "UDP/TLS/RTP/SAVPF"), c.srtp == kDTLS_SRTP ? 2 : 0)
            << offer;
        EXPECT_EQ(CountLines(offer, "m=", "RTP/AVPF"), c.srtp == kDTLS_SRTP ? 0 : 2) << offer;
        // A complete description names its default candidate; RTCP's too.
        EXPECT_EQ(CountLines(offer, "c=IN IP4 127.0.0.1"), 2) << offer;
        EXPECT_EQ(CountLines(offer, "m=", " 9 "), 0) << offer;
        EXPECT_EQ(CountLines(offer, "a=rtcp:", "127.0.0.1"), 2) << offer;
        callee.SetRemote(c.edit(offer), "offer");
        std::string answer = callee.Negotiate(false);
        ASSERT_FALSE(answer.empty());
        if (*c.codec) {
            EXPECT_EQ(CountLines(answer, "a=rtpmap:", c.codec), 1) << answer;
        }
        SdpResult applied;
        caller.SetRemote(answer, "answer", &applied);
        ASSERT_TRUE(applied.Wait());
        EXPECT_TRUE(applied.error.empty()) << applied.error;
        for (Endpoint* e : {&caller, &callee})
            EXPECT_TRUE(e->observer.WaitFor(3000, [&] { return e->observer.audio_tracks == 1; }));
        if (c.video) {
            EXPECT_TRUE(callee.remote_frames.WaitFrames(3, 3000)) << "caller's video not at callee";
            EXPECT_TRUE(caller.remote_frames.WaitFrames(3, 3000)) << "callee's video not at caller";
            EXPECT_EQ(callee.remote_frames.width, 320);
            EXPECT_EQ(caller.remote_frames.width, 160);
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
            EXPECT_EQ(caller.remote_frames.Frames() + callee.remote_frames.Frames(), 0);
        }
    }
}

// An installation that wants no plain RTP: every offer is DTLS-SRTP whatever the
// configuration asks for, and a plain offer is refused with its reason.
TEST(MediaEngine, RequiredEncryptionRefusesPlainRtp) {
    auto factory = Factory();
    Endpoint device(factory, 160, 120);
    std::string plain = device.Negotiate(true);
    ASSERT_EQ(CountLines(plain, "m=", "RTP/AVPF"), 2) << plain;

    zarnrtc::testing::SettingsScope<zarnrtc::testing::MediaSettings> encrypted(
        [](zarnrtc::testing::MediaSettings& m) { m.requireEncryption = true; });
    Endpoint door(factory, 160, 120), monitor(factory, 160, 120);
    SdpResult refused;
    monitor.SetRemote(plain, "offer", &refused);
    ASSERT_TRUE(refused.Wait());
    EXPECT_EQ(refused.error, "unencrypted media refused");
    std::string offer = door.Negotiate(true);
    EXPECT_EQ(CountLines(offer, "m=", "UDP/TLS/RTP/SAVPF"), 2) << offer;
}
