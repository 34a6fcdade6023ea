// Local and remote frames of one call arrive on two engine threads into one sink
// through two adapters. Built under ThreadSanitizer in the tsan preset.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "callimpl.h"
#include "fake_media.h"
#include "fake_sip.h"
#include "sipenginemanager.h"
#include "video_render_impl.h"

using namespace zarnrtc;

namespace {
class SharedSink : public VideoSink {
  public:
    void OnFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) override {
        if (frame && frame->width() > 0) ++frames;
    }
    std::atomic<int> frames{0};
};

// Waits inside OnFrame until a second thread is inside too (or gives up).
class MeetingSink : public VideoSink {
  public:
    void OnFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame>) override {
        ++inside;
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (inside.load() < 2 && std::chrono::steady_clock::now() < until)
            std::this_thread::yield();
        if (inside.load() >= 2) met = true;
    }
    std::atomic<int> inside{0};
    std::atomic<bool> met{false};
};
}  // namespace

// The adapter holds no lock while the application's sink runs, so one slow sink
// call does not stall the other thread's frames (nor deadlock a sink that waits).
TEST(RenderThreads, AdapterHoldsNoLockWhileTheSinkRuns) {
    MeetingSink sink;
    VideoRenderImpl adapter(&sink);
    std::thread a([&] { adapter.renderFrame(fake::makeFrame(4, 4)); });
    std::thread b([&] { adapter.renderFrame(fake::makeFrame(4, 4)); });
    a.join();
    b.join();
    EXPECT_TRUE(sink.met);
}

TEST(RenderThreads, TwoThreadsTwoAdaptersOneSink) {
    SipEngineManager manager;
    SharedSink sink;
    auto* call = new CallImpl(1, &manager);
    call->makeCall("sip:door@x", CallParams());
    call->setLocalVideoRender(&sink);
    call->setRemoteVideoRender(&sink);
    auto* pc = fake::lastPeerConnection();
    pc->fireAddTrack("video", "remote");
    fake::FakeVideoTrack* local = fake::localVideoTracks().back();
    fake::FakeVideoTrack* remote = pc->remoteVideoTrack();

    const int perThread = 5000;
    std::thread a([&] {
        for (int i = 0; i < perThread; ++i) local->pushFrame(fake::makeFrame(64, 48));
    });
    std::thread b([&] {
        for (int i = 0; i < perThread; ++i) remote->pushFrame(fake::makeFrame(32, 24));
    });
    a.join();
    b.join();
    EXPECT_EQ(sink.frames, 2 * perThread);

    call->closeWebRTC();
    call->closeSip();
    delete call;
}
