// The call registry: which entries it keeps. (Concurrent use: threads_test.cpp;
// the camera rule: call_media_test.cpp.)
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
