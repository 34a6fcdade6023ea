// The registrar goes away under a registered engine and comes back.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include "kamailio_server.h"
#include "phone.h"
#include "settings_scope.h"

using siptest::Event;
using siptest::KamailioServer;
using siptest::Phone;

TEST(SipRegistrarRestart, FailureReportedThenRegisteredAgain) {
    if (!KamailioServer::installed()) GTEST_SKIP() << "kamailio is not installed";
    zarnrtc::testing::bindSipToLoopback();
    KamailioServer server;
    ASSERT_TRUE(server.start());
    Phone door;
    ASSERT_TRUE(door.registerAt(server.address(), "door", "door123"));

    server.stop();
    Event failed;
    ASSERT_TRUE(door.rec.waitKind(Event::kRegFailed, door.accId, &failed, std::chrono::seconds(10)))
        << "loss of the registrar not reported";
    EXPECT_FALSE(failed.text.empty());

    // Down for a while: the engine keeps trying (1 s, 2 s, 4 s, ...) and reports each
    // miss; it also watches the server's port, so it is back at once, not at 8 s.
    std::this_thread::sleep_for(std::chrono::milliseconds(4500));
    door.rec.clear();
    ASSERT_TRUE(server.start());
    auto back = std::chrono::steady_clock::now();
    EXPECT_TRUE(door.rec.waitKind(Event::kRegOk, door.accId, nullptr, std::chrono::seconds(10)))
        << "not registered again";
    auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - back);
    printf("registered again %lld ms after the registrar was back\n",
           static_cast<long long>(took.count()));
    EXPECT_LT(took.count(), 2000) << "waited for the back-off instead of the server";

    // And it is really reachable again: a call from a second engine arrives.
    Phone monitor;
    ASSERT_TRUE(monitor.registerAt(server.address(), "monitor", "monitor123"));
    int id = monitor.engine->CreateCall();
    monitor.engine->MakeCall(id, "door", "Monitor", "dev_indoor", siptest::kOfferSdp, 160);
    EXPECT_GT(door.incomingCall(), 0);
}
