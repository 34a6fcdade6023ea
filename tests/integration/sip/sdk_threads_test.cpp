// The SDK over the host SIP engine and Kamailio, with the application's thread and
// the engine's thread meeting on purpose: a door station gives up while the monitor
// answers, and an account is registered and unregistered while the engine reports on
// it. Runs under AddressSanitizer (dev) and ThreadSanitizer (tsan).
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "account.h"
#include "app_events.h"
#include "fake_media.h"
#include "kamailio_server.h"
#include "phone.h"
#include "settings_scope.h"
#include "sipenginemanager.h"
#include "kept_engine.h"

using siptest::KamailioServer;
using siptest::Phone;

namespace {

using zarnrtc_testing::AppEvents;
using zarnrtc_testing::eventually;

// The facade lives as long as the process, by design, and its SIP thread may still
// report (a refresh failing once Kamailio is gone) while globals are destroyed: its
// handler is never destroyed either.
zarnrtc::ZarnRtc* g_monitor = nullptr;
AppEvents& g_monitorEvents = *new AppEvents;

TEST(SipSdkThreads, DoorGivesUpWhileTheMonitorAnswers) {
    if (!KamailioServer::installed()) GTEST_SKIP() << "kamailio is not installed";
    zarnrtc::testing::bindSipToLoopback();
    KamailioServer server;
    ASSERT_TRUE(server.start());
    zarnrtc::fake::mediaConfig().autoNegotiate = true;

    g_monitor = zarnrtc_testing::keptEngine();
    g_monitor->setZarnRtcEvent(&g_monitorEvents);
    int acc = g_monitor->registerAccount(server.address().c_str(), "monitor", "monitor123", "Hall");
    ASSERT_GT(acc, 0);
    ASSERT_TRUE(eventually([&] { return g_monitorEvents.sawRegistration(acc, 1); }, 10000));

    Phone door;
    ASSERT_TRUE(door.registerAt(server.address(), "door", "door123"));
    const std::string monitorUri = "sip:monitor@" + server.address();
    const int rounds = 40;
    for (int round = 0; round < rounds; ++round) {
        int atDoor = door.engine->CreateCall();
        door.engine->MakeCall(atDoor, monitorUri.c_str(), "Door", "dev_outdoor", siptest::kOfferSdp,
                              480);
        int id = g_monitorEvents.nthIncoming(size_t(round));
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
        eventually([&] { return g_monitorEvents.saw(id, zarnrtc::kHangup); }, 10000);
        EXPECT_EQ(g_monitorEvents.reasons(id, zarnrtc::kHangup).size(), 1u) << "round " << round;
        // The ended id is no longer known: hanging it up does nothing.
        g_monitor->hangup(id);
    }
}

TEST(SipSdkThreads, AccountReplacedWhileTheEngineReportsOnIt) {
    if (!KamailioServer::installed()) GTEST_SKIP() << "kamailio is not installed";
    zarnrtc::testing::bindSipToLoopback();
    KamailioServer server;
    ASSERT_TRUE(server.start());
    AppEvents events;
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
    EXPECT_TRUE(eventually([&] { return events.sawRegistration(acc, 1); }, 10000));
    zarnrtc::Account* account = manager->currentAccount();
    delete manager;  // the engine goes first, so no report reaches a freed record
    delete account;  // the manager never frees its current account
}

}  // namespace
