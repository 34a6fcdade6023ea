// News from the media engine that a call's far end is gone, as the SIP engine takes
// it through the engine link: only the call it names ends, with 408 and a BYE that
// ends the far side too; news racing engines that come and go is harmless.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <thread>

#include "engine_link.h"
#include "site.h"

using siptest::Event;
using siptest::Phone;

namespace {

// The reason of the one kHangup the call got, or -1.
int endReason(siptest::Recorder& rec, int id) {
    int reason = -1, ends = 0;
    for (const Event& e : rec.events())
        if (e.kind == Event::kState && e.id == id && e.a == sipengine::kHangup)
            reason = e.b, ++ends;
    return ends == 1 ? reason : -1;
}

TEST(MediaLost, TheNamedCallEndsWith408AndTheFarSideHearsBye) {
    SKIP_WITHOUT_KAMAILIO();
    siptest::Site site;
    ASSERT_TRUE(site.up());
    Phone &door = site.door, &monitor = site.monitor;
    int id = door.engine->CreateCall();
    // Lost before the call is up: a ringing call has no media to lose yet.
    int in = site.ring(id);
    ASSERT_GT(in, 0);
    zarn_link_report_lost("abcd", "no media for 8 s");
    monitor.engine->Accept(in, siptest::kAnswerSdp, "dev_monitor", true, true, 480);
    ASSERT_TRUE(door.rec.waitState(id, sipengine::kAnswered));
    ASSERT_TRUE(monitor.rec.waitState(in, sipengine::kAnswered));

    zarn_link_report_lost("nobody", "no media for 8 s");  // another engine's call
    zarn_link_report_lost("abcd", "no media for 8 s");    // the door's offer
    ASSERT_TRUE(door.rec.waitState(id, sipengine::kHangup));
    ASSERT_TRUE(monitor.rec.waitState(in, sipengine::kHangup));
    EXPECT_EQ(endReason(door.rec, id), 408);
    for (const Event& e : door.rec.events())
        if (e.kind == Event::kState && e.a == sipengine::kHangup) {
            EXPECT_EQ(e.text, "far end lost: no media for 8 s");
        }
    EXPECT_EQ(endReason(monitor.rec, in), 200);
    zarn_link_report_lost("abcd", "again");  // late news of an ended call
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(endReason(door.rec, id), 408);
}

TEST(MediaLost, NewsRacingEnginesThatComeAndGo) {
    std::atomic<bool> stop{false};
    std::thread media([&] {
        while (!stop) {
            zarn_link_report_lost("abcd", "racing");
            zarn_link_report_unusable("v=0\r\n", 488, "racing");
        }
    });
    for (int i = 0; i < 20; ++i) {
        Phone phone;
        std::this_thread::sleep_for(std::chrono::milliseconds(i % 3));
    }
    stop = true;
    media.join();
}

}  // namespace
