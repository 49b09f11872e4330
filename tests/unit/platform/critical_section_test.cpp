#include "platform/critical_section.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

class CriticalSectionTest : public testing::Test {
 protected:
  CriticalSectionTest() { EXPECT_EQ(QmInitializeCriticalSection(&m_cs), 0); }
  ~CriticalSectionTest() override { EXPECT_EQ(QmDeleteCriticalSection(&m_cs), 0); }

  QmCriticalSection m_cs;
  int m_iCount QM_GUARDED_BY(m_cs) = 0;
};

// The analysis has no notion of a lock taken twice.
void LockTwice(QmCriticalSection* pCs) QM_NO_THREAD_SAFETY_ANALYSIS {
  EXPECT_EQ(QmLockCriticalSection(pCs), 0);
  EXPECT_EQ(QmLockCriticalSection(pCs), 0);
}
void Unlock(QmCriticalSection* pCs) QM_NO_THREAD_SAFETY_ANALYSIS {
  EXPECT_EQ(QmUnlockCriticalSection(pCs), 0);
}

TEST_F(CriticalSectionTest, OneThreadAtATime) {
  std::vector<std::thread> vecThreads;
  for (int iThread = 0; iThread < 4; ++iThread) {
    vecThreads.emplace_back([this] {
      for (int iRound = 0; iRound < 10000; ++iRound) {
        const CCriticalSectionGuard guard(m_cs);
        ++m_iCount;
      }
    });
  }
  for (std::thread& thread : vecThreads) {
    thread.join();
  }
  const CCriticalSectionGuard guard(m_cs);
  EXPECT_EQ(m_iCount, 40000);
}

TEST_F(CriticalSectionTest, AnotherThreadEntersOnlyWhenEveryLockIsUndone) {
  std::atomic<int> iOwnersLocks{2};
  LockTwice(&m_cs);
  std::thread other([this, &iOwnersLocks] {
    const CCriticalSectionGuard guard(m_cs);
    EXPECT_EQ(iOwnersLocks.load(), 0);
  });
  for (int iLock = 0; iLock < 2; ++iLock) {
    for (int iRound = 0; iRound < 1000; ++iRound) {
      std::this_thread::yield();  // time for the other thread to come in where it must not
    }
    --iOwnersLocks;
    Unlock(&m_cs);
  }
  other.join();
}

TEST(CriticalSectionNullTest, IsRefused) {
  const auto lockNull = []() QM_NO_THREAD_SAFETY_ANALYSIS { return QmLockCriticalSection(nullptr); };
  const auto unlockNull = []() QM_NO_THREAD_SAFETY_ANALYSIS { return QmUnlockCriticalSection(nullptr); };
  EXPECT_NE(QmInitializeCriticalSection(nullptr), 0);
  EXPECT_NE(lockNull(), 0);
  EXPECT_NE(unlockNull(), 0);
  EXPECT_NE(QmDeleteCriticalSection(nullptr), 0);
}

}  // namespace
