// Want of memory in the manager's own life: a status, never an exception.
#include <new>

#include "tests/support/allocation_faults.h"
#include "tests/support/manager_fixture.h"

namespace {

constexpr unsigned int kMoreThanEnough = 1000;

class ManagerMemoryTest : public ComponentTest {
 protected:
  // Tries with each allocation of that kind failing in turn, until none is left; how many tries gave no manager.
  template <typename Fault>
  static unsigned int RefusedInstances() {
    unsigned int uRefused = 0;
    bool bFailed = true;
    for (unsigned int uNth = 1; bFailed && uNth < kMoreThanEnough; ++uNth) {
      CLogCacheMgr* pManager = nullptr;
      {
        const Fault fault(uNth);
        EXPECT_NO_THROW(pManager = CLogCacheMgr::Instance()) << uNth;
        bFailed = fault.HasFailed();
      }
      EXPECT_EQ(pManager, CLogCacheMgrPeer::Current()) << uNth;
      uRefused += pManager == nullptr ? 1 : 0;
      CLogCacheMgr::Close();
    }
    EXPECT_FALSE(bFailed);
    return uRefused;
  }
};

TEST_F(ManagerMemoryTest, WithoutMemoryForItOrItsMembersThereIsNoManagerAndNothingIsThrown) {
  EXPECT_GT(RefusedInstances<CNthAllocationFault>(), 0U);
  EXPECT_GT(RefusedInstances<CNthStringFault>(), 0U);
  EXPECT_NE(nullptr, CLogCacheMgr::Instance());
}

TEST_F(ManagerMemoryTest, AnInitThatFindsNoMemoryFailsAndTheNextSucceeds) {
  CLogCacheMgr& manager = *CLogCacheMgr::Instance();
  bool bThrown = false;
  CLogCapture::SetHook([&](const LogLine& line) {
    if (line.strText == ConfigLine(2).strText && !bThrown) {
      bThrown = true;
      throw std::bad_alloc();
    }
  });
  bool bInitialized = true;
  EXPECT_NO_THROW(bInitialized = manager.Init());
  EXPECT_TRUE(bThrown);
  EXPECT_FALSE(bInitialized);
  EXPECT_TRUE(LoggedExactly({{kMainChannel, 2, "qmlogcache CLogCacheMgr::Init Begin"},
                             ConfigLine(2),
                             {kMainChannel, 4, "**qmlogcache CLogCacheData::InitCacheData Error InitLogCacheMon"},
                             {kMainChannel, 3, "*qmlogcache CLogCacheMgr::Init Error InitCacheData Error"}}));
  EXPECT_TRUE(manager.Init());
}

}  // namespace
