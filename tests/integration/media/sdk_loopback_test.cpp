// Two SDK engines calling each other over the real media engine. SIP is the
// loopback engine of testing/loopback_sip: a switchboard that hands the SDP text
// across and reports call states from its own thread, as a real SIP engine would.
#include <gtest/gtest.h>

#include <thread>

#include "app_events.h"
#include "kept_engine.h"

using zarnrtc_testing::AppEvents;
using zarnrtc_testing::eventually;

TEST(MediaSdk, CallAnswerVideoAndHangup) {
    auto* alice = static_cast<zarnrtc::ZarnRtcImpl*>(zarnrtc_testing::keptEngine());
    auto* bob = static_cast<zarnrtc::ZarnRtcImpl*>(zarnrtc_testing::keptEngine());
    AppEvents a, b;
    b.answering = bob;
    alice->setZarnRtcEvent(&a);
    bob->setZarnRtcEvent(&b);
    alice->registerAccount("127.0.0.1", "alice", "secret", "Alice");
    bob->registerAccount("127.0.0.1", "bob", "secret", "Bob");
    ASSERT_TRUE(eventually([&] { return a.registered && b.registered; }, 2000));

    int id = alice->call("sip:bob@127.0.0.1");
    ASSERT_GT(id, 0);
    alice->setupRemoteVideo(id, &a.remote);

    ASSERT_TRUE(eventually([&] { return b.incoming > 0; }, 5000)) << "no INVITE reached bob";
    EXPECT_TRUE(eventually([&] { return a.saw(id, 6); }, 5000));
    EXPECT_TRUE(eventually([&] { return a.remote.frames > 2 && b.remote.frames > 2; }, 15000))
        << "frames alice " << a.remote.frames << " bob " << b.remote.frames;
    EXPECT_TRUE(a.remoteReady);
    EXPECT_TRUE(b.remoteReady);
    EXPECT_GT(a.remote.width, 0);

    alice->hangup(id);
    EXPECT_TRUE(eventually([&] { return b.saw(b.incoming, 7); }, 3000));
    // Frames stop once both ends have torn the call down.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    int frames_a = a.remote.frames, frames_b = b.remote.frames;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(a.remote.frames, frames_a);
    EXPECT_EQ(b.remote.frames, frames_b);
}
