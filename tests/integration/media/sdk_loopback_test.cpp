// Two SDK engines calling each other over the real media engine. SIP is the
// loopback engine of testing/loopback_sip: a switchboard that hands the SDP text
// across and reports call states from its own thread, as a real SIP engine would.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "SipEngine.h"
#include "videosink.h"
#include "zarnrtc.h"
#include "zarnrtcimpl.h"
#include "kept_engine.h"

namespace {

struct Sink : zarnrtc::VideoSink {
    void OnFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) override {
        width = frame->width();
        ++frames;
    }
    std::atomic<int> frames{0}, width{0};
};

// Answers every incoming call and records what the application would see.
struct Handler : zarnrtc::IRtcEngineEventHandler {
    void onRegistrationState(int, int state, const char*) override {
        if (state == 1) registered = true;
    }
    void onMessage(const char*) override {}
    void onIncomingCall(int callId, const char*, const char*) override {
        incoming = callId;
        if (!engine) return;
        engine->setupRemoteVideo(callId, &remote);
        engine->answer(callId);
    }
    void onCallStateChange(int callId, int state, int) override {
        std::lock_guard<std::mutex> lock(mutex);
        states.emplace_back(callId, state);
    }
    void onLocalVideoReady(int) override {}
    void onRemoteVideoReady(int) override { remote_ready = true; }
    void onUpdatedByLocal(int, bool) override {}
    void onUpdatedByRemote(int, bool) override {}

    bool Saw(int callId, int state) {
        std::lock_guard<std::mutex> lock(mutex);
        for (auto& s : states)
            if (s.first == callId && s.second == state) return true;
        return false;
    }

    zarnrtc::ZarnRtcImpl* engine = nullptr;
    Sink remote;
    std::atomic<bool> registered{false}, remote_ready{false};
    std::atomic<int> incoming{0};
    std::mutex mutex;
    std::vector<std::pair<int, int>> states;
};

template <typename Pred>
bool Eventually(Pred pred, int ms) {
    for (int waited = 0; waited < ms; waited += 10) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return pred();
}

}  // namespace

TEST(MediaSdk, CallAnswerVideoAndHangup) {
    auto* alice = static_cast<zarnrtc::ZarnRtcImpl*>(zarnrtc_testing::keptEngine());
    auto* bob = static_cast<zarnrtc::ZarnRtcImpl*>(zarnrtc_testing::keptEngine());
    Handler a, b;
    b.engine = bob;
    alice->setZarnRtcEvent(&a);
    bob->setZarnRtcEvent(&b);
    alice->registerAccount("127.0.0.1", "alice", "secret", "Alice");
    bob->registerAccount("127.0.0.1", "bob", "secret", "Bob");
    ASSERT_TRUE(Eventually([&] { return a.registered && b.registered; }, 2000));

    int id = alice->call("sip:bob@127.0.0.1");
    ASSERT_GT(id, 0);
    alice->setupRemoteVideo(id, &a.remote);

    ASSERT_TRUE(Eventually([&] { return b.incoming > 0; }, 5000)) << "no INVITE reached bob";
    EXPECT_TRUE(Eventually([&] { return a.Saw(id, 6); }, 5000));
    EXPECT_TRUE(Eventually([&] { return a.remote.frames > 2 && b.remote.frames > 2; }, 15000))
        << "frames alice " << a.remote.frames << " bob " << b.remote.frames;
    EXPECT_TRUE(a.remote_ready);
    EXPECT_TRUE(b.remote_ready);
    EXPECT_GT(a.remote.width, 0);

    alice->hangup(id);
    EXPECT_TRUE(Eventually([&] { return b.Saw(b.incoming, 7); }, 3000));
    // Frames stop once both ends have torn the call down.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    int frames_a = a.remote.frames, frames_b = b.remote.frames;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(a.remote.frames, frames_a);
    EXPECT_EQ(b.remote.frames, frames_b);
}
