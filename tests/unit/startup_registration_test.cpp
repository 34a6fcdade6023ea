// Engine start-up, the event relay and account registration.
#include <stdexcept>

#include "account.h"
#include "sipenginemanager.h"
#include "test_support.h"
#include "kept_engine.h"

using namespace zarnrtc;
using namespace zarnrtc::test;
using ::testing::ElementsAre;

class StartUpTest : public FakeEngineTest {};

TEST_F(StartUpTest, EngineStartsSipThenMediaAndEachEngineIsIndependent) {
    ZarnRtc* engine = zarnrtc_testing::keptEngine();
    EXPECT_THAT(
        fake::logEntries(),
        ElementsAre("SipEngine(0)", "RegisterRegistrationDelegate", "RegisterCallStateDelegate",
                    "LibWebRTC::Initialize", "LibWebRTC::CreateRTCPeerConnectionFactory"));
    fake::SipEngineState* first = sip();
    ASSERT_NE(first, nullptr);
    EXPECT_NE(first->registration, nullptr);
    EXPECT_NE(first->calls, nullptr);

    ZarnRtc* second = zarnrtc_testing::keptEngine();
    EXPECT_NE(engine, second);
    EXPECT_NE(sip(), first);
    EXPECT_EQ(ops("SipEngine(").size(), 2u);
}

TEST_F(StartUpTest, EventsReachOnlyAnInstalledHandlerAndMessagesNeverDo) {
    ZarnRtc* engine = zarnrtc_testing::keptEngine();
    auto* sipState = sip();
    RecordingHandler handler;

    // No handler yet: everything is dropped without harm.
    sipState->registration->OnRegistrationSuccess(1);
    sipState->registration->onMessage("sip:a@b", "hello");
    static_cast<ZarnRtcImpl*>(engine)->onRemoteVideoReady(3);

    engine->setZarnRtcEvent(&handler);
    sipState->registration->onMessage("sip:a@b", "hello");
    auto* impl = static_cast<ZarnRtcImpl*>(engine);
    impl->onLocalVideoReady(4);
    impl->onRemoteVideoReady(4);
    impl->onUpdatedByLocal(4, true);
    impl->onUpdatedByRemote(4, false);
    EXPECT_THAT(handler.events(),
                ElementsAre("localVideo(4)", "remoteVideo(4)", "updatedByLocal(4,true)",
                            "updatedByRemote(4,false)"));

    engine->setZarnRtcEvent(nullptr);
    handler.clear();
    sipState->registration->OnRegistrationFailed(1, 500, "Server Error");
    EXPECT_TRUE(handler.events().empty());
}

TEST_F(StartUpTest, RegistrationAsTheApplicationSeesIt) {
    ZarnRtc* engine = zarnrtc_testing::keptEngine();
    RecordingHandler handler;
    engine->setZarnRtcEvent(&handler);
    fake::sipConfig().nextAccountId = 7;

    EXPECT_EQ(engine->registerAccount("10.0.0.1:5060", "alice", "s3cret", "Alice"), 7);
    EXPECT_THAT(ops("MakeRegister"),
                ElementsAre("MakeRegister(alice,alice,s3cret,10.0.0.1:5060,10.0.0.1:5060,TCP,600,"
                            "Alice,false)"));

    auto* reg = sip()->registration;
    reg->OnRegistrationProgress(7);
    reg->OnRegistrationSuccess(7);
    reg->OnRegistrationFailed(7, 403, "Forbidden");
    reg->OnRegistrationClear(7);
    reg->OnRegistrationSuccess(9);  // not the current account: still reported
    engine->setZarnRtcEvent(nullptr);
    EXPECT_THAT(handler.events(), ElementsAre("registration(7,0,null)", "registration(7,1,null)",
                                              "registration(7,3,Forbidden)",
                                              "registration(7,2,null)", "registration(9,1,null)"));
}

TEST_F(StartUpTest, AccountRecordFollowsCallbacksAndUnregistersOnlyTheCurrentAccount) {
    SipEngineManager manager;
    EXPECT_EQ(manager.currentAccount(), nullptr);
    auto* reg = sip()->registration;
    reg->OnRegistrationSuccess(5);  // no record yet: nothing to update, nothing breaks

    fake::sipConfig().nextAccountId = 1;
    int first = manager.registerAccount("a", "u", "p", "d");
    int second = manager.registerAccount("a", "u", "p", "d");
    Account* account = manager.currentAccount();
    ASSERT_NE(account, nullptr);
    EXPECT_EQ(account->getAccId(), second);

    reg->OnRegistrationFailed(second, 403, "Forbidden");
    EXPECT_EQ(account->getState(), 3);
    EXPECT_EQ(account->getCode(), 3);
    EXPECT_EQ(account->getReason(), "Forbidden");
    reg->OnRegistrationProgress(second);
    EXPECT_EQ(account->getReason(), "Progress");

    // A null failure text cannot become the record's text.
    EXPECT_THROW(reg->OnRegistrationFailed(second, 408, nullptr), std::logic_error);

    manager.unregisterSipAccount(first);
    EXPECT_TRUE(ops("MakeDeRegister").empty());
    account->unregisterAccount();
    EXPECT_THAT(ops("MakeDeRegister"),
                ElementsAre("MakeDeRegister(" + std::to_string(second) + ")"));
    EXPECT_EQ(manager.currentAccount(), nullptr);
}

// Teardown: the SIP engine first (no callback can come), then the registry (its
// calls stay), the camera, and last the factory the camera belongs to. The account
// record is left to whoever registered it.
TEST_F(StartUpTest, TeardownStopsSipThenReleasesCameraThenFactory) {
    auto* manager = new SipEngineManager();
    manager->registerAccount("a", "u", "p", "d");
    Account* account = manager->currentAccount();
    ASSERT_NE(account, nullptr);
    // Made through the manager and dropped: only the manager holds the camera now.
    manager->createVideoTrack("video_label", nullptr, false, "capturer", 0, 640, 480, 15);
    ASSERT_TRUE(manager->hasCapturer());
    fake::logClear();

    delete manager;
    EXPECT_THAT(fake::logEntries(), ElementsAre("~SipEngine", "~Capturer", "~Factory"));
    EXPECT_EQ(account->getAccId(), 1);  // still a live record (ASan would object)
    delete account;
}
