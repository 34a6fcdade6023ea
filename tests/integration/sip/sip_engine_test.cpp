// Two host SIP engines in one process, calling each other through Kamailio.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "call_state.h"
#include "site.h"

using siptest::Event;
using siptest::expectEndsOnce;
using siptest::KamailioServer;
using siptest::Phone;
using zarnrtc::testing::SettingsScope;
using zarnrtc::testing::SipSettings;

using sipengine::kAnswered;
using sipengine::kCancel;
using sipengine::kFailed;
using sipengine::kHangup;
using sipengine::kRejected;
using sipengine::kRinging;

namespace {

class SipEngineCalls : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        zarnrtc::testing::bindSipToLoopback();
        if (!KamailioServer::installed()) return;
        server_ = new KamailioServer;
        if (!server_->start()) delete server_, server_ = nullptr;
    }
    static void TearDownTestSuite() { delete server_, server_ = nullptr; }

    void SetUp() override {
        if (!KamailioServer::installed()) GTEST_SKIP() << "kamailio is not installed";
        ASSERT_NE(server_, nullptr) << "kamailio did not start";
        alice_ = std::make_unique<Phone>();
        bob_ = std::make_unique<Phone>();
        ASSERT_TRUE(alice_->registerAt(server_->address(), "alice", "alice123"));
        ASSERT_TRUE(bob_->registerAt(server_->address(), "bob", "bob123"));
    }

    // `caller` calls bob (or `callee`).
    static void dial(SipEngine& caller, int id, const char* callee = nullptr,
                     const char* offer = siptest::kOfferSdp) {
        std::string uri = callee ? callee : "sip:bob@" + server_->address();
        caller.MakeCall(id, uri.c_str(), "Alice Door", "dev_indoor", offer, 160);
    }
    // alice calls bob; returns bob's id of the call once bob saw the offer.
    int call(int aliceId, const char* callee = nullptr, const char* offer = siptest::kOfferSdp) {
        dial(*alice_->engine, aliceId, callee, offer);
        int bobId = bob_->incomingCall();
        EXPECT_GT(bobId, 0);
        EXPECT_TRUE(bob_->rec.waitKind(Event::kOffer, bobId));
        return bobId;
    }

    static KamailioServer* server_;
    std::unique_ptr<Phone> alice_;
    std::unique_ptr<Phone> bob_;
};

KamailioServer* SipEngineCalls::server_ = nullptr;

TEST_F(SipEngineCalls, RegistrationOutcomes) {
    EXPECT_EQ(alice_->rec.count(Event::kRegProgress, alice_->accId), 1);
    EXPECT_TRUE(alice_->rec.singleThread(std::this_thread::get_id()));

    // A third engine in the same process with a wrong password: the server's refusal
    // comes back after the one digest retry, and no success.
    Phone intruder;
    int acc = intruder.engine->MakeRegister("door", "door", "wrong", server_->address().c_str(),
                                            server_->address().c_str(), "TCP", 600, "Door", false);
    ASSERT_GT(acc, 0);
    Event failed;
    ASSERT_TRUE(intruder.rec.waitKind(Event::kRegFailed, acc, &failed));
    EXPECT_EQ(failed.a, 401);
    EXPECT_EQ(failed.text, "Unauthorized");
    EXPECT_EQ(intruder.rec.count(Event::kRegOk), 0);

    // Server given with scheme, no usable server, unregister.
    Phone other;
    std::string withScheme = "sip:" + server_->address();
    EXPECT_EQ(other.engine->MakeRegister("door", "door", "door123", "", "", "TCP", 600, "D", false),
              -1);
    EXPECT_EQ(other.engine->MakeRegister(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0,
                                         nullptr, false),
              -1);
    EXPECT_TRUE(other.registerAt(withScheme, "door", "door123"));
    other.engine->MakeDeRegister(other.accId);
    EXPECT_TRUE(other.rec.waitKind(Event::kRegClear, other.accId));
}

TEST_F(SipEngineCalls, AnsweredCallEndedByCallerBye) {
    int a = alice_->engine->CreateCall();
    int b = call(a);
    Event offer, incoming;
    ASSERT_TRUE(bob_->rec.waitKind(Event::kOffer, b, &offer));
    ASSERT_TRUE(bob_->rec.waitKind(Event::kIncoming, b, &incoming));
    EXPECT_EQ(offer.text, siptest::kOfferSdp);
    EXPECT_TRUE(offer.b && offer.video);
    EXPECT_EQ(incoming.a, bob_->accId);
    EXPECT_EQ(incoming.text, "sip:alice@" + server_->address());
    EXPECT_EQ(incoming.text2.substr(0, incoming.text2.find('|')), "Alice Door");
    ASSERT_TRUE(alice_->rec.waitState(a, kRinging));

    bob_->engine->Accept(b, siptest::kAnswerSdp, "dev_indoor", true, true, 480);
    Event answer;
    ASSERT_TRUE(alice_->rec.waitKind(Event::kAnswer, a, &answer));
    EXPECT_EQ(answer.text, siptest::kAnswerSdp);
    EXPECT_TRUE(answer.b && answer.video);
    ASSERT_TRUE(alice_->rec.waitState(a, kAnswered));
    ASSERT_TRUE(bob_->rec.waitState(b, kAnswered));

    alice_->engine->Hangup(a);
    expectEndsOnce(*alice_, a);
    expectEndsOnce(*bob_, b);
    EXPECT_EQ(alice_->rec.states(a), (std::vector<int>{kRinging, kAnswered, kHangup}));
    EXPECT_EQ(bob_->rec.states(b), (std::vector<int>{kAnswered, kHangup}));
    Event hangup;
    bob_->rec.waitFor([&](const Event& e) { return e.kind == Event::kState && e.a == kHangup; },
                      &hangup);
    EXPECT_EQ(hangup.b, 200);
    EXPECT_TRUE(alice_->rec.singleThread(std::this_thread::get_id()));
    EXPECT_TRUE(bob_->rec.singleThread(std::this_thread::get_id()));
}

TEST_F(SipEngineCalls, CalleeAnswersAndHangsUpFromItsCallbacks) {
    // What an application does on the engine thread: answer on the offer, then hang
    // up as soon as the call is up; a bare user name goes to the registrar's domain.
    // The recorder reads onEvent on the engine thread: set before bob registers.
    bob_.reset();
    bob_ = std::make_unique<Phone>();
    bob_->rec.onEvent = [this](const Event& e) {
        if (e.kind == Event::kOffer) {
            bob_->engine->Accept(e.id, siptest::kAnswerSdp, "dev_indoor", true, true, 480);
        } else if (e.kind == Event::kState && e.a == kAnswered) {
            bob_->engine->Hangup(e.id);
        }
    };
    ASSERT_TRUE(bob_->registerAt(server_->address(), "bob", "bob123"));
    int a = alice_->engine->CreateCall();
    int b = call(a, "bob");
    expectEndsOnce(*alice_, a);
    expectEndsOnce(*bob_, b);
    EXPECT_EQ(bob_->rec.states(b), (std::vector<int>{kAnswered, kHangup}));
    std::vector<int> states = alice_->rec.states(a);
    ASSERT_GE(states.size(), 2u);
    EXPECT_EQ(states[states.size() - 2], kAnswered);
}

TEST_F(SipEngineCalls, BusyRejectAndUnknownCallee) {
    int a = alice_->engine->CreateCall();
    int b = call(a);
    ASSERT_TRUE(alice_->rec.waitState(a, kRinging));
    bob_->engine->Reject(b, 486);
    expectEndsOnce(*alice_, a);
    expectEndsOnce(*bob_, b);
    EXPECT_EQ(alice_->rec.states(a), (std::vector<int>{kRinging, kRejected, kHangup}));
    Event rejected;
    alice_->rec.waitFor([&](const Event& e) { return e.kind == Event::kState && e.a == kRejected; },
                        &rejected);
    EXPECT_EQ(rejected.b, 486);

    // Nobody registered as carol: the proxy's 404 fails the call.
    int c = alice_->engine->CreateCall();
    alice_->engine->MakeCall(c, "carol", "Alice", "dev_indoor", siptest::kOfferSdp, 160);
    expectEndsOnce(*alice_, c);
    EXPECT_EQ(alice_->rec.states(c), (std::vector<int>{kFailed, kHangup}));
}

TEST_F(SipEngineCalls, CallerCancelsWhileRinging) {
    int a = alice_->engine->CreateCall();
    int b = call(a);
    ASSERT_TRUE(alice_->rec.waitState(a, kRinging));
    alice_->engine->Hangup(a);
    expectEndsOnce(*alice_, a);
    expectEndsOnce(*bob_, b);
    EXPECT_EQ(alice_->rec.states(a), (std::vector<int>{kRinging, kCancel, kHangup}));
    EXPECT_EQ(bob_->rec.states(b), (std::vector<int>{kCancel, kHangup}));

    // The ended ids are dead for every operation.
    bob_->engine->Accept(b, siptest::kAnswerSdp, "dev_indoor", true, true, 480);
    alice_->engine->Hangup(a);
    bob_->engine->Reject(b, 486);
    alice_->engine->UpdateMediaState(a, true, siptest::kOfferSdp, true, true);
    bob_->engine->Hangup(12345);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(alice_->rec.states(a).size(), 3u);
    EXPECT_EQ(bob_->rec.states(b).size(), 2u);
}

TEST_F(SipEngineCalls, ReinviteCarriesNewSdpBothWays) {
    int a = alice_->engine->CreateCall();
    int b = call(a);
    bob_->engine->Accept(b, siptest::kAnswerSdp, "dev_indoor", true, true, 480);
    ASSERT_TRUE(alice_->rec.waitState(a, kAnswered));
    ASSERT_TRUE(bob_->rec.waitState(b, kAnswered));

    alice_->engine->UpdateMediaState(a, true, siptest::kAudioOnlySdp, true, false);
    Event atBob, atAlice;
    ASSERT_TRUE(bob_->rec.waitKind(Event::kMedia, b, &atBob));
    EXPECT_EQ(atBob.text, siptest::kAudioOnlySdp);
    EXPECT_TRUE(atBob.b);
    EXPECT_FALSE(atBob.video);
    // The engine answered by itself with bob's last SDP.
    ASSERT_TRUE(alice_->rec.waitKind(Event::kMedia, a, &atAlice));
    EXPECT_EQ(atAlice.text, siptest::kAnswerSdp);

    bob_->engine->Hangup(b);
    expectEndsOnce(*alice_, a);
    expectEndsOnce(*bob_, b);
    EXPECT_EQ(alice_->rec.states(a), (std::vector<int>{kRinging, kAnswered, kHangup}));
}

TEST_F(SipEngineCalls, AnswerToTheFarEndsReofferKeepsTheDtlsRole) {
    // Alice offered actpass and bob took the active role: on bob's re-offer alice's
    // engine answers with her description, now passive, not actpass.
    std::string offer = std::string(siptest::kOfferSdp) + "a=setup:actpass\r\n";
    std::string answer = std::string(siptest::kAnswerSdp) + "a=setup:active\r\n";
    int a = alice_->engine->CreateCall();
    int b = call(a, nullptr, offer.c_str());
    bob_->engine->Accept(b, answer.c_str(), "dev_indoor", true, true, 480);
    ASSERT_TRUE(alice_->rec.waitState(a, kAnswered));
    ASSERT_TRUE(bob_->rec.waitState(b, kAnswered));

    bob_->engine->UpdateMediaState(b, true, offer.c_str(), true, true);
    Event atBob;
    ASSERT_TRUE(bob_->rec.waitKind(Event::kMedia, b, &atBob));
    EXPECT_EQ(atBob.text.find("a=setup:actpass"), std::string::npos) << atBob.text;
    EXPECT_NE(atBob.text.find("a=setup:passive"), std::string::npos) << atBob.text;
    alice_->engine->Hangup(a);
    expectEndsOnce(*bob_, b);
}

TEST_F(SipEngineCalls, RingingIsBoundedBothWays) {
    // Nobody answers the door: the caller gives up after its bound with 408.
    std::optional<SettingsScope<SipSettings>> ring;
    ring.emplace([](SipSettings& s) { s.outgoingRingS = 1; });
    int a = alice_->engine->CreateCall();
    int b = call(a);
    auto start = std::chrono::steady_clock::now();
    expectEndsOnce(*alice_, a);
    auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    printf("unanswered outgoing call ended after %lld ms (bound 1 s)\n",
           static_cast<long long>(took.count()));
    EXPECT_EQ(alice_->rec.states(a), (std::vector<int>{kRinging, kFailed, kHangup}));
    expectEndsOnce(*bob_, b);
    EXPECT_EQ(bob_->rec.states(b), (std::vector<int>{kCancel, kHangup}));

    // The application never answers: the callee's engine refuses with 480.
    ring.emplace([](SipSettings& s) { s.incomingRingS = 1; });
    a = alice_->engine->CreateCall();
    b = call(a);
    expectEndsOnce(*bob_, b);
    expectEndsOnce(*alice_, a);
    ring.reset();
    Event end;
    ASSERT_TRUE(alice_->rec.waitFor(
        [&](const Event& e) { return e.kind == Event::kState && e.id == a && e.a == kHangup; },
        &end));
    EXPECT_EQ(end.b, 480);
}

TEST_F(SipEngineCalls, DescriptionsTheMediaEngineCannotUseEndTheCall) {
    // An offer without ICE (plain RTP or not) never rings: 488, and bob hears nothing.
    int a = alice_->engine->CreateCall();
    std::string uri = "sip:bob@" + server_->address();
    const char* plainRtp =
        "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\nm=audio 5004 RTP/AVP 0\r\n";
    alice_->engine->MakeCall(a, uri.c_str(), "Alice", "dev_door", plainRtp, 160);
    expectEndsOnce(*alice_, a);
    EXPECT_EQ(alice_->rec.states(a), (std::vector<int>{kFailed, kHangup}));
    EXPECT_EQ(bob_->rec.count(Event::kIncoming), 0);

    // An answer the caller cannot use: acknowledged, then ended with BYE and 488.
    a = alice_->engine->CreateCall();
    int b = call(a);
    bob_->engine->Accept(b, "v=0\r\n", "dev_indoor", true, true, 480);
    expectEndsOnce(*alice_, a);
    expectEndsOnce(*bob_, b);
    EXPECT_EQ(alice_->rec.states(a), (std::vector<int>{kRinging, kFailed, kHangup}));
    EXPECT_EQ(alice_->rec.count(Event::kAnswer, a), 0) << "no answer handed to the application";
    Event end;
    ASSERT_TRUE(alice_->rec.waitFor(
        [&](const Event& e) { return e.kind == Event::kState && e.id == a && e.a == kHangup; },
        &end));
    EXPECT_EQ(end.b, 488);
}

// The application hangs up while the media is still being prepared: the call ends
// once, at once, and the INVITE asked for afterwards never leaves.
TEST_F(SipEngineCalls, HungUpBeforeItWasSent) {
    int a = alice_->engine->CreateCall();
    alice_->engine->Hangup(a);
    expectEndsOnce(*alice_, a);
    EXPECT_EQ(alice_->rec.states(a), std::vector<int>{kHangup});
    std::string uri = "sip:bob@" + server_->address();
    alice_->engine->MakeCall(a, uri.c_str(), "Alice", "dev_door", siptest::kOfferSdp, 160);
    alice_->engine->Hangup(a);  // twice: still one end
    int b = alice_->engine->CreateCall();
    EXPECT_GT(call(b), 0) << "the next call goes out as usual";
    EXPECT_EQ(bob_->rec.count(Event::kIncoming), 1);
    EXPECT_EQ(alice_->rec.states(a), std::vector<int>{kHangup});
}

TEST_F(SipEngineCalls, DestroyingAnEngineEndsItsCalls) {
    int a = alice_->engine->CreateCall();
    int b = call(a);
    bob_->engine->Accept(b, siptest::kAnswerSdp, "dev_indoor", true, true, 480);
    ASSERT_TRUE(bob_->rec.waitState(b, kAnswered));
    ASSERT_TRUE(alice_->rec.waitState(a, kAnswered));
    alice_->engine.reset();  // the stack's shutdown sends BYE
    expectEndsOnce(*bob_, b);
}

// Takes the engine of a phone that has not registered yet and deletes it from inside
// its own callback, on the first event that matches `when`.
class EngineDeletedInCallback {
  public:
    EngineDeletedInCallback(Phone& phone, std::function<bool(const Event&)> when)
        : phone_(phone),
          engine_(phone.engine.release()),
          threadsBefore_(siptest::countEntries("/proc/self/task")) {
        phone.rec.onEvent = [this, when](const Event& e) {
            if (when(e)) delete engine_.exchange(nullptr);
        };
    }
    ~EngineDeletedInCallback() { delete engine_.exchange(nullptr); }

    // As Phone::registerAt.
    bool registerAt(const std::string& server, const char* user, const char* password) {
        phone_.accId = engine_.load()->MakeRegister(user, user, password, server.c_str(),
                                                    server.c_str(), "TCP", 600, user, false);
        return phone_.accId > 0 && phone_.rec.waitKind(Event::kRegOk, phone_.accId);
    }

    // Only before the deleting event can have come.
    SipEngine* operator->() { return engine_.load(); }

    // The engine was deleted and its thread, left to finish the shutdown (un-REGISTER,
    // BYE or CANCEL, the stack's shutdown), has ended on its own.
    bool finished() {
        for (int i = 0; i < 400; ++i) {
            if (!engine_.load() && siptest::countEntries("/proc/self/task") < threadsBefore_)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }

  private:
    Phone& phone_;
    std::atomic<SipEngine*> engine_;
    const int threadsBefore_;
};

bool isState(const Event& e, int state) {
    return e.kind == Event::kState && e.a == state;
}

TEST_F(SipEngineCalls, CalleeDeletesItsEngineOnTheIncomingCall) {
    // No offer, no ringing after the deletion: the shutdown turns the caller away.
    bob_.reset();
    Phone bob;
    EngineDeletedInCallback engine(bob, [](const Event& e) { return e.kind == Event::kIncoming; });
    ASSERT_TRUE(engine.registerAt(server_->address(), "bob", "bob123"));
    int a = alice_->engine->CreateCall();
    dial(*alice_->engine, a);
    ASSERT_TRUE(engine.finished());
    expectEndsOnce(*alice_, a);
    EXPECT_EQ(alice_->rec.states(a), (std::vector<int>{kFailed, kHangup}));
    EXPECT_EQ(bob.rec.count(Event::kIncoming), 1);
    EXPECT_EQ(bob.rec.count(Event::kOffer), 0);
}

TEST_F(SipEngineCalls, CallerDeletesItsEngineOnTheAnswer) {
    // OnCallAnswer is followed by no Answered state; the shutdown's BYE ends the call.
    alice_.reset();
    Phone alice;
    EngineDeletedInCallback engine(alice, [](const Event& e) { return e.kind == Event::kAnswer; });
    ASSERT_TRUE(engine.registerAt(server_->address(), "alice", "alice123"));
    int a = engine->CreateCall();
    engine->MakeCall(a, ("sip:bob@" + server_->address()).c_str(), "Alice", "dev_indoor",
                     siptest::kOfferSdp, 160);
    int b = bob_->incomingCall();
    ASSERT_TRUE(bob_->rec.waitKind(Event::kOffer, b));
    bob_->engine->Accept(b, siptest::kAnswerSdp, "dev_indoor", true, true, 480);
    expectEndsOnce(*bob_, b);
    ASSERT_TRUE(engine.finished());
    EXPECT_EQ(bob_->rec.states(b), (std::vector<int>{kAnswered, kHangup}));
    EXPECT_EQ(alice.rec.states(a), (std::vector<int>{kRinging}));
}

TEST_F(SipEngineCalls, EnginesDeletedOnHangupFailureAndRegistration) {
    {
        // The usual end of a call: the callee's application shuts down on its Hangup.
        bob_.reset();
        Phone bob;
        EngineDeletedInCallback engine(bob, [](const Event& e) { return isState(e, kHangup); });
        ASSERT_TRUE(engine.registerAt(server_->address(), "bob", "bob123"));
        int a = alice_->engine->CreateCall();
        dial(*alice_->engine, a);
        int b = bob.incomingCall();
        ASSERT_TRUE(bob.rec.waitKind(Event::kOffer, b));
        engine->Accept(b, siptest::kAnswerSdp, "dev_indoor", true, true, 480);
        ASSERT_TRUE(alice_->rec.waitState(a, kAnswered));
        ASSERT_TRUE(bob.rec.waitState(b, kAnswered));
        alice_->engine->Hangup(a);
        expectEndsOnce(*alice_, a);
        ASSERT_TRUE(engine.finished());
        EXPECT_EQ(bob.rec.states(b), (std::vector<int>{kAnswered, kHangup}));
    }
    {
        // A call that cannot be sent (no account): no Hangup after the deleting Failed.
        Phone lonely;
        EngineDeletedInCallback engine(lonely, [](const Event& e) { return isState(e, kFailed); });
        int c = engine->CreateCall();
        engine->MakeCall(c, "bob", "", "dev_indoor", siptest::kOfferSdp, 160);
        ASSERT_TRUE(engine.finished());
        EXPECT_EQ(lonely.rec.states(c), (std::vector<int>{kFailed}));
    }
    for (Event::Kind kind : {Event::kRegProgress, Event::kRegOk}) {
        // From the registration delegate, with the REGISTER in flight or done.
        Phone door;
        EngineDeletedInCallback engine(door, [kind](const Event& e) { return e.kind == kind; });
        int acc = engine->MakeRegister("door", "door", "door123", server_->address().c_str(),
                                       server_->address().c_str(), "TCP", 600, "Door", false);
        ASSERT_GT(acc, 0);
        ASSERT_TRUE(engine.finished()) << static_cast<int>(kind);
        std::vector<Event> events = door.rec.events();
        ASSERT_FALSE(events.empty());
        EXPECT_EQ(events.back().kind, kind);
    }
}

}  // namespace
