// Frames reach application sinks from engine threads. One adapter delivers one frame
// at a time; two adapters on one sink may overlap; a sink may call back into the SDK.
// Built under ThreadSanitizer in the tsan preset.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "callimpl.h"
#include "fake_media.h"
#include "fake_sip.h"
#include "kept_engine.h"
#include "sipenginemanager.h"
#include "video_render_impl.h"
#include "zarnrtcimpl.h"

using namespace zarnrtc;
using Frame = libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame>;

namespace {

// Records how many deliveries were inside at once; lingers a little so that an
// unserialised second delivery would be caught inside.
class OverlapSink : public VideoSink {
  public:
    void OnFrame(Frame) override {
        int now = ++inside;
        int seen = most.load();
        while (now > seen && !most.compare_exchange_weak(seen, now)) {
        }
        ++frames;
        std::this_thread::yield();
        --inside;
    }
    std::atomic<int> inside{0}, most{0}, frames{0};
};

// Waits inside OnFrame until a second thread is inside too (or gives up).
class MeetingSink : public VideoSink {
  public:
    void OnFrame(Frame) override {
        ++inside;
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (inside.load() < 2 && std::chrono::steady_clock::now() < until)
            std::this_thread::yield();
        if (inside.load() >= 2) met = true;
    }
    std::atomic<int> inside{0};
    std::atomic<bool> met{false};
};

class ThrowingSink : public VideoSink {
  public:
    void OnFrame(Frame) override {
        if (++calls == 1) throw std::runtime_error("display gone");
    }
    std::atomic<int> calls{0};
};

void onThreads(int threads, int each, const std::function<void()>& deliver) {
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&] {
            for (int i = 0; i < each; ++i) deliver();
        });
    for (auto& t : pool) t.join();
}

}  // namespace

TEST(RenderThreads, OneAdapterDeliversOneFrameAtATimeTwoAdaptersMayOverlap) {
    OverlapSink sink;
    VideoRenderImpl adapter(&sink);
    onThreads(4, 500, [&] { adapter.renderFrame(fake::makeFrame(4, 4)); });
    EXPECT_EQ(sink.frames, 2000);
    EXPECT_EQ(sink.most, 1);

    // Each adapter locks only its own mutex: a sink behind two is entered twice.
    MeetingSink shared;
    VideoRenderImpl first(&shared), second(&shared);
    std::thread a([&] { first.renderFrame(fake::makeFrame(4, 4)); });
    std::thread b([&] { second.renderFrame(fake::makeFrame(4, 4)); });
    a.join();
    b.join();
    EXPECT_TRUE(shared.met);
}

TEST(RenderThreads, ASinkThatThrowsLeavesTheAdapterUsable) {
    ThrowingSink sink;
    VideoRenderImpl adapter(&sink);
    Frame frame = fake::makeFrame(4, 4);
    EXPECT_THROW(adapter.renderFrame(frame), std::runtime_error);
    // The lock was released on the way out: the next delivery, from another thread,
    // gets in (a leaked lock would hang here; ctest's timeout ends the run).
    std::thread next([&] { adapter.renderFrame(frame); });
    next.join();
    EXPECT_EQ(sink.calls, 2);
}

TEST(RenderThreads, TwoThreadsTwoAdaptersOneSink) {
    SipEngineManager manager;
    OverlapSink sink;
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

namespace {

// Swaps the call's remote sink from inside OnFrame, as an application switching
// screens on the first picture would.
class ReenteringSink : public VideoSink {
  public:
    ReenteringSink(ZarnRtcImpl* engine, VideoSink* next) : engine_(engine), next_(next) {}
    void OnFrame(Frame) override {
        if (++frames % 50 == 1) engine_->setupRemoteVideo(callId.load(), next_);
    }
    std::atomic<int> callId{0}, frames{0};

  private:
    ZarnRtcImpl* engine_;
    VideoSink* next_;
};

}  // namespace

// Only the adapter's own mutex is held while the sink runs: the sink re-enters the
// SDK while the application thread wires sinks and hangs up, without deadlock or race.
TEST(RenderThreads, ASinkMayCallBackIntoTheSdk) {
    fake::resetSip();
    fake::resetMedia();
    auto* engine = static_cast<ZarnRtcImpl*>(zarnrtc_testing::keptEngine());
    OverlapSink after;
    ReenteringSink sink(engine, &after);
    int id = engine->call("sip:monitor@x");
    ASSERT_GT(id, 0);
    sink.callId = id;
    engine->setupRemoteVideo(id, &sink);
    auto* pc = fake::lastPeerConnection();
    ASSERT_NE(pc, nullptr);
    pc->fireAddTrack("video", "remote");
    fake::FakeVideoTrack* remote = pc->remoteVideoTrack();
    ASSERT_NE(remote, nullptr);

    std::thread media([&] {
        for (int i = 0; i < 600; ++i) remote->pushFrame(fake::makeFrame(32, 24));
    });
    for (int i = 0; i < 60; ++i)
        engine->setupRemoteVideo(id, i % 2 ? static_cast<VideoSink*>(&sink) : &after);
    media.join();
    EXPECT_GT(sink.frames, 0);
    EXPECT_GT(after.frames, 0);
    EXPECT_EQ(after.most, 1);
    engine->hangup(id);
}
