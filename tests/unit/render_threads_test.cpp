// Local and remote frames of one call arrive on two engine threads into one sink
// through two adapters. Built under ThreadSanitizer in the tsan preset.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "callimpl.h"
#include "fake_media.h"
#include "fake_sip.h"
#include "sipenginemanager.h"

using namespace zarnrtc;

namespace {
class SharedSink : public VideoSink {
  public:
    void OnFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) override {
        if (frame && frame->width() > 0) ++frames;
    }
    std::atomic<int> frames{0};
};
}  // namespace

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
