// The SDK over the host SIP engine and Kamailio, with the application's thread and
// the engine's thread meeting on purpose: a door station gives up while the monitor
// answers, and an account is registered and unregistered while the engine reports on
// it. Runs under AddressSanitizer (dev) and ThreadSanitizer (tsan).
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "fake_media.h"
#include "kamailio_server.h"
#include "phone.h"
#include "sipenginemanager.h"
#include "zarnrtc.h"
#include "kept_engine.h"

using siptest::KamailioServer;
using siptest::Phone;

namespace {

// Records what the monitor application sees, for waiting on.
class Monitor : public zarnrtc::IRtcEngineEventHandler, public zarnrtc::RegistrationStateObserver {
  public:
    void onRegistrationState(int accId, int state, const char*) override {
        if (state == 1) push(registered, accId);
    }
    void onIncomingCall(int callId, const char*, const char*) override { push(incoming, callId); }
    void onCallStateChange(int callId, int state, int) override {
        if (state == zarnrtc::kHangup) push(ended, callId);
    }
    void onMessage(const char*) override {}
    void onLocalVideoReady(int) override {}
    void onRemoteVideoReady(int) override {}
    void onUpdatedByLocal(int, bool) override {}
    void onUpdatedByRemote(int, bool) override {}

    // Waits for the n-th entry (from 0) of a list and returns it, or -1.
    int waitEntry(std::vector<int>& list, size_t n) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!cv_.wait_for(lock, std::chrono::seconds(10), [&] { return list.size() > n; }))
            return -1;
        return list[n];
    }
    // Waits until value is in the list; returns how often it is there.
    size_t waitValue(std::vector<int>& list, int value) {
        std::unique_lock<std::mutex> lock(mutex_);
        auto count = [&] {
            size_t n = 0;
            for (int v : list) n += v == value;
            return n;
        };
        cv_.wait_for(lock, std::chrono::seconds(10), [&] { return count() > 0; });
        return count();
    }

    std::vector<int> registered, incoming, ended;

  private:
    void push(std::vector<int>& list, int v) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            list.push_back(v);
        }
        cv_.notify_all();
    }
    std::mutex mutex_;
    std::condition_variable cv_;
};

// The facade lives as long as the process, by design, and its SIP thread may still
// report (a refresh failing once Kamailio is gone) while globals are destroyed: its
// handler is never destroyed either.
zarnrtc::ZarnRtc* g_monitor = nullptr;
Monitor& g_monitorEvents = *new Monitor;

TEST(SipSdkThreads, DoorGivesUpWhileTheMonitorAnswers) {
    if (!KamailioServer::installed()) GTEST_SKIP() << "kamailio is not installed";
    setenv("ZARNRTC_SIP_BIND", "127.0.0.1", 1);
    KamailioServer server;
    ASSERT_TRUE(server.start());
    zarnrtc::fake::mediaConfig().autoNegotiate = true;

    g_monitor = zarnrtc_testing::keptEngine();
    g_monitor->setZarnRtcEvent(&g_monitorEvents);
    int acc = g_monitor->registerAccount(server.address().c_str(), "monitor", "monitor123", "Hall");
    ASSERT_GT(acc, 0);
    ASSERT_GE(g_monitorEvents.waitValue(g_monitorEvents.registered, acc), 1u);

    Phone door;
    ASSERT_TRUE(door.registerAt(server.address(), "door", "door123"));
    const std::string monitorUri = "sip:monitor@" + server.address();
    const int rounds = 40;
    for (int round = 0; round < rounds; ++round) {
        int atDoor = door.engine->CreateCall();
        door.engine->MakeCall(atDoor, monitorUri.c_str(), "Door", "dev_outdoor", siptest::kOfferSdp,
                              480);
        int id = g_monitorEvents.waitEntry(g_monitorEvents.incoming, size_t(round));
        ASSERT_GT(id, 0) << "round " << round;
        // The visitor's give-up and the resident's answer leave together, in
        // turns one slightly ahead of the other.
        std::thread visitor([&] {
            if (round % 3 == 1) std::this_thread::sleep_for(std::chrono::milliseconds(round % 7));
            door.engine->Hangup(atDoor);
        });
        if (round % 3 == 2) std::this_thread::sleep_for(std::chrono::milliseconds(round % 7));
        g_monitor->answer(id);
        visitor.join();
        // Whichever wins, the call ends at both sides and the monitor hears it once.
        EXPECT_TRUE(door.rec.waitState(atDoor, zarnrtc::kHangup)) << "round " << round;
        EXPECT_EQ(g_monitorEvents.waitValue(g_monitorEvents.ended, id), 1u) << "round " << round;
        // The ended id is no longer known: hanging it up does nothing.
        g_monitor->hangup(id);
    }
}

TEST(SipSdkThreads, AccountReplacedWhileTheEngineReportsOnIt) {
    if (!KamailioServer::installed()) GTEST_SKIP() << "kamailio is not installed";
    setenv("ZARNRTC_SIP_BIND", "127.0.0.1", 1);
    KamailioServer server;
    ASSERT_TRUE(server.start());
    Monitor events;
    auto* manager = new zarnrtc::SipEngineManager();
    manager->setRegistrationObserver(&events);
    for (int i = 0; i < 15; ++i) {
        int acc = manager->registerAccount(server.address().c_str(), "monitor2", "monitor123",
                                           "Upstairs");
        ASSERT_GT(acc, 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(i % 5));
        manager->unregisterSipAccount(acc);
    }
    int acc =
        manager->registerAccount(server.address().c_str(), "monitor2", "monitor123", "Upstairs");
    // Reports of the churn may still arrive; the last account ends up registered.
    EXPECT_GE(events.waitValue(events.registered, acc), 1u);
    delete manager;  // the engine goes first, so no report reaches a freed record
}

}  // namespace
