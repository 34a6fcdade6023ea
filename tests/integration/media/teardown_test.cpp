// Tearing calls down at awkward moments: no callback after Close, no deadlock
// when closing from a callback, nothing left behind (LeakSanitizer at exit).
#include <dirent.h>

#include <thread>

#include "media_test_util.h"

using namespace mediatest;

namespace {

void Settle(int ms = 400) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// Caller and callee as far as the caller's remote answer.
void Connect(Endpoint& caller, Endpoint& callee) {
    std::string offer = caller.Negotiate(true);
    ASSERT_FALSE(offer.empty());
    callee.SetRemote(offer, "offer");
    std::string answer = callee.Negotiate(false);
    ASSERT_FALSE(answer.empty());
    caller.SetRemote(answer, "answer");
}

// Closes and drops its peer connection from inside the completion callback.
class ClosingObserver : public RecordingObserver {
  public:
    void OnIceGatheringState(RTCIceGatheringState state) override {
        RecordingObserver::OnIceGatheringState(state);
        if (state != RTCIceGatheringStateComplete || !pc) return;
        pc->Close();
        pc = nullptr;  // possibly the last reference
        closed = true;
        done = true;
        Changed();
    }
    scoped_refptr<RTCPeerConnection> pc;
    std::atomic<bool> done{false};
};

// Detaches itself from inside a frame.
class SelfRemovingRenderer : public RTCVideoRenderer<scoped_refptr<RTCVideoFrame>> {
  public:
    void renderFrame(scoped_refptr<RTCVideoFrame>) override {
        ++calls;
        if (track) track->RemoveRenderer(this);
    }
    RTCVideoTrack* track = nullptr;
    std::atomic<int> calls{0};
};

}  // namespace

TEST(MediaTeardown, CloseAtEveryStage) {
    auto factory = Factory();
    {
        // While gathering: the offer is set, candidates are still coming.
        Endpoint e(factory, 160, 120);
        e.pc->CreateOffer(
            [pc = e.pc](const char* sdp, const char* type) {
                pc->SetLocalDescription(sdp, type, nullptr, nullptr);
            },
            nullptr, nullptr);
        ASSERT_TRUE(e.observer.WaitFor(5000, [&] { return !e.observer.gathering.empty(); }));
        e.Close();
        Settle();
        EXPECT_EQ(e.observer.after_close, 0);
    }
    {
        // While connecting: the answer has just been applied.
        Endpoint caller(factory, 160, 120), callee(factory, 160, 120);
        Connect(caller, callee);
        caller.Close();
        callee.Close();
        Settle();
        EXPECT_EQ(caller.observer.after_close, 0);
        EXPECT_EQ(callee.observer.after_close, 0);
    }
    {
        // While frames flow, with a second renderer detaching itself.
        Endpoint caller(factory, 160, 120), callee(factory, 160, 120);
        SelfRemovingRenderer once;
        once.track = caller.video.get();
        caller.video->AddRenderer(&once);
        Connect(caller, callee);
        ASSERT_TRUE(callee.remote_frames.WaitFrames(2, 3000));
        EXPECT_EQ(once.calls, 1);
        callee.Close();
        int frames = callee.remote_frames.Frames();
        Settle();
        EXPECT_EQ(callee.remote_frames.Frames(), frames) << "renderer called after removal";
        caller.Close();
        Settle();
        EXPECT_EQ(caller.observer.after_close, 0);
        EXPECT_EQ(callee.observer.after_close, 0);
    }
}

TEST(MediaTeardown, CloseFromInsideCallbackAndReleaseEverywhere) {
    auto factory = Factory();
    ClosingObserver observer;
    auto pc = factory->Create(SdkConfiguration(), RTCMediaConstraints::Create());
    pc->RegisterRTCPeerConnectionObserver(&observer);
    observer.pc = pc;
    auto stream = factory->CreateStream("stream_id");
    stream->AddTrack(
        factory->CreateAudioTrack(factory->CreateAudioSource("audio_label"), "audio_label"));
    pc->AddStream(stream);
    auto weak = pc.get();
    pc->CreateOffer(
        [weak](const char* sdp, const char* type) {
            weak->SetLocalDescription(sdp, type, nullptr, nullptr);
        },
        nullptr, nullptr);
    pc = nullptr;  // the observer holds the last reference
    EXPECT_TRUE(observer.WaitFor(5000, [&] { return observer.done.load(); }));
    Settle();
    EXPECT_EQ(observer.after_close, 0);
}

// A source without a capturer sends nothing and breaks nothing; one camera
// feeds two calls at once.
TEST(MediaTeardown, NullAndSharedCapturers) {
    auto factory = Factory();
    {
        auto pc = factory->Create(SdkConfiguration(), nullptr);
        auto stream = factory->CreateStream("s");
        auto empty = factory->CreateVideoTrack(factory->CreateVideoSource(nullptr, "v", nullptr),
                                               "video_label");
        FrameCounter local;
        empty->AddRenderer(&local);
        stream->AddTrack(empty);
        pc->AddStream(stream);
        SdpResult offer;
        pc->CreateOffer([&](const char* sdp, const char*) { offer.Set(sdp, nullptr); },
                        [&](const char* e) { offer.Set(nullptr, e); }, nullptr);
        ASSERT_TRUE(offer.Wait());
        EXPECT_EQ(CountLines(offer.sdp, "m=video"), 1);
        EXPECT_EQ(local.Frames(), 0);
        empty->RemoveRenderer(&local);
        pc->Close();
    }
    {
        auto camera = factory->GetVideoDevice()->Create("capturer", 99, 176, 144, 15);
        auto one = factory->CreateVideoTrack(factory->CreateVideoSource(camera, "a", nullptr), "a");
        auto two = factory->CreateVideoTrack(factory->CreateVideoSource(camera, "b", nullptr), "b");
        FrameCounter first, second;
        one->AddRenderer(&first);
        two->AddRenderer(&second);
        EXPECT_TRUE(first.WaitFrames(2, 3000));
        EXPECT_TRUE(second.WaitFrames(2, 3000));
        EXPECT_EQ(second.width, 176);
        one->RemoveRenderer(&first);
        two->RemoveRenderer(&second);
    }
}

namespace {
int CountEntries(const char* dir) {
    int n = 0;
    if (DIR* d = opendir(dir)) {
        while (readdir(d)) ++n;
        closedir(d);
    }
    return n;
}
}  // namespace

// A device makes thousands of calls between reboots: a finished call must give back
// its sockets and threads, not only its memory.
TEST(MediaTeardown, FinishedCallsGiveBackSocketsAndThreads) {
    auto factory = Factory();
    auto round = [&] {
        Endpoint caller(factory, 160, 120), callee(factory, 160, 120);
        Connect(caller, callee);
        EXPECT_TRUE(caller.remote_frames.WaitFrames(1, 5000));
        caller.Close();
        callee.Close();
    };
    round();  // first call: one-time set-up of the engine and GStreamer
    Settle(500);
    const int fds = CountEntries("/proc/self/fd");
    const int threads = CountEntries("/proc/self/task");
    for (int i = 0; i < 3; ++i) round();
    Settle(1000);
    EXPECT_LE(CountEntries("/proc/self/fd"), fds + 2);
    EXPECT_LE(CountEntries("/proc/self/task"), threads + 2);
}
