// Ringing several targets at once, and routing per-call media requests by id.
#include "callimpl.h"
#include "sipenginemanager.h"
#include "test_support.h"

using namespace zarnrtc;
using namespace zarnrtc::test;
using ::testing::ElementsAre;

namespace {

using ForwardingTest = EngineTest;

// Records the packet operations that the stock call leaves empty.
class RecordingCall : public CallImpl {
  public:
    RecordingCall(int id, SipEngineManager* m, std::vector<std::string>* log)
        : CallImpl(id, m), id_(id), log_(log) {}
    void sendStreamPacket(bool video, uint8_t pt, uint32_t ts, const uint8_t*, int len) override {
        log_->push_back("packet(" + std::to_string(id_) + "," + (video ? "v" : "a") + "," +
                        std::to_string(pt) + "," + std::to_string(ts) + "," + std::to_string(len) +
                        ")");
    }
    void sendRtcp(bool pli) override {
        log_->push_back("rtcp(" + std::to_string(id_) + "," + (pli ? "pli" : "-") + ")");
    }
    void openflowStream() override { log_->push_back("flow(" + std::to_string(id_) + ")"); }

  private:
    int id_;
    std::vector<std::string>* log_;
};

}  // namespace

TEST_F(ForwardingTest, FirstAnswerWinsAndTheOthersAreCancelled) {
    fake::sipConfig().callIds = {1, 10, 0, 12};
    ASSERT_EQ(engine->call("sip:earlier@x"), 1);
    engine->callForward({"sip:a@x", "sip:b@x", "sip:c@x"}, "Door", false, false, 1, 2, 3, 4,
                        "ignored");
    EXPECT_THAT(ops("CreateCall"),
                ElementsAre("CreateCall=1", "CreateCall=10", "CreateCall=0", "CreateCall=12"));

    calls->OnCallStateChange(12, kAnswered, 200, "OK");
    EXPECT_THAT(ops("Hangup"), ElementsAre("Hangup(10)", "Hangup(1)"));
    EXPECT_THAT(handler.events(), ElementsAre("state(12,6,200)"));

    // The winner is current now: media operations address it.
    auto pcs = fake::peerConnections();
    ASSERT_EQ(pcs.size() - pcsBefore, 3u);
    pcs.back()->fireAddTrack("audio", "a");
    engine->audioPlay("/tmp/chime.wav");
    EXPECT_THAT(ops("Receiver"), ElementsAre("Receiver(" + pcs.back()->name() +
                                             ".audio).audioPlay(/tmp/chime.wav)"));

    // Settled: another answer changes nothing.
    calls->OnCallStateChange(1, kAnswered, 200, "OK");
    EXPECT_EQ(ops("Hangup").size(), 2u);
}

TEST_F(ForwardingTest, HangupDuringForwardingClearsEveryTrackedCall) {
    fake::sipConfig().callIds = {20, 21, 22};
    engine->callForward({"sip:a@x", "sip:b@x", "sip:c@x"}, nullptr, true, true, 0, 0, 0, 0,
                        nullptr);
    engine->hangup(21);
    EXPECT_THAT(ops("Hangup"), ElementsAre("Hangup(21)", "Hangup(20)", "Hangup(22)"));

    // No longer forwarding: a late answer only reaches the application.
    calls->OnCallStateChange(20, kAnswered, 200, "OK");
    EXPECT_EQ(ops("Hangup").size(), 3u);

    // An empty list starts nothing at all.
    fake::logClear();
    engine->callForward({}, nullptr, true, true, 0, 0, 0, 0, nullptr);
    EXPECT_TRUE(ops("CreateCall").empty());
}

TEST_F(ForwardingTest, SameTargetTwiceIsPlacedTwiceTrackedOnce) {
    fake::sipConfig().callIds = {30, 31};
    engine->callForward({"sip:a@x", "sip:a@x"}, nullptr, true, true, 0, 0, 0, 0, nullptr);
    EXPECT_EQ(ops("CreateCall").size(), 2u);
    calls->OnCallStateChange(31, kAnswered, 200, "OK");  // the untracked one wins
    EXPECT_THAT(ops("Hangup"), ElementsAre("Hangup(30)"));
}

TEST_F(FakeEngineTest, StreamInjectionRoutesByIdInAscendingOrder) {
    SipEngineManager manager;
    std::vector<std::string> log;
    manager.flowStream();  // no calls: nothing
    RecordingCall c9(9, &manager, &log), c3(3, &manager, &log), c5(5, &manager, &log);
    const uint8_t pkt[4] = {1, 2, 3, 4};

    manager.inlineflowStream(true, 5, 96, 9000, pkt, 4);
    manager.inlineSendRtcp(5, true);
    manager.sendVideoPacket(5, pkt, 4, 97, 1234);
    manager.sendVideoPacket(77, pkt, 4, 97, 1234);  // unknown id: nothing
    manager.flowStream();
    EXPECT_THAT(
        log, ElementsAre("packet(3,v,96,9000,4)", "packet(9,v,96,9000,4)", "rtcp(3,pli)",
                         "rtcp(9,pli)", "packet(5,v,97,1234,4)", "flow(3)", "flow(5)", "flow(9)"));

    log.clear();
    c3.closeSip();
    c9.closeSip();
    manager.inlineSendRtcp(5, false);  // only the caller's own call is left
    EXPECT_TRUE(log.empty());
}
