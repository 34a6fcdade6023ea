// The call registry under concurrent use and its camera release rule.
#include <thread>

#include "callimpl.h"
#include "sipenginemanager.h"
#include "test_support.h"

using namespace zarnrtc;
using namespace zarnrtc::test;

namespace {
// A call that only has an id, for registry tests.
class IdCall : public CallImpl {
  public:
    IdCall(int id, SipEngineManager* m) : CallImpl(id, m) {}
};
}  // namespace

class RegistryTest : public FakeEngineTest {};

TEST_F(RegistryTest, FirstEntryWinsAndNonPositiveIdsStay) {
    SipEngineManager manager;
    IdCall a(4, &manager);
    IdCall b(4, &manager);  // same id: not entered
    IdCall zero(0, &manager);
    IdCall negative(-2, &manager);
    EXPECT_EQ(manager.callCount(), 3u);

    b.closeSip();  // removes the single entry of id 4
    EXPECT_EQ(manager.callCount(), 2u);
    a.closeSip();  // id 4 no longer present: nothing changes
    zero.closeSip();
    negative.closeSip();
    EXPECT_EQ(manager.callCount(), 2u);
}

TEST_F(RegistryTest, LastCallLeavingClosesTheCameraOnlyThen) {
    SipEngineManager manager;
    CountingSink sink;
    auto* one = new CallImpl(1, &manager);
    one->makeCall("sip:a@b", CallParams());
    auto* two = new CallImpl(2, &manager);
    two->makeCall("sip:c@d", CallParams());
    EXPECT_EQ(fake::openCameras(), 1);

    IdCall stranger(99, &manager);
    stranger.closeSip();  // registered under 99: leaves, camera stays for the others
    EXPECT_EQ(fake::openCameras(), 1);

    one->closeWebRTC();
    one->closeSip();
    EXPECT_TRUE(manager.hasCapturer());
    two->closeWebRTC();
    two->closeSip();
    EXPECT_FALSE(manager.hasCapturer());
    delete one;
    delete two;
    EXPECT_EQ(fake::openCameras(), 0);
}

TEST_F(RegistryTest, TwoThreadsRegisteringAndUnregisteringAtOnce) {
    SipEngineManager manager;
    IdCall keeper(100000, &manager);  // keeps the registry non-empty throughout
    auto worker = [&manager](int base) {
        for (int i = 0; i < 2000; ++i) {
            IdCall c(base + i, &manager);
            c.closeSip();
        }
    };
    std::thread t1(worker, 1);
    std::thread t2(worker, 50000);
    t1.join();
    t2.join();
    EXPECT_EQ(manager.callCount(), 1u);
}
