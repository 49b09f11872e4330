// The two threads as they run.
#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <new>
#include <string>
#include <thread>

#include "message/receive.h"
#include "tests/support/manager_fixture.h"

namespace {

constexpr char kWorkBegin[] = "qmlogcache CLogCacheMgr::WorkThread Begin";
constexpr char kWorkEnd[] = "qmlogcache CLogCacheMgr::WorkThread End";
constexpr char kTimerBegin[] = "qmlogcache CLogCacheMgr::TimerThread Begin";
constexpr char kTimerEnd[] = "qmlogcache CLogCacheMgr::TimerThread End";

std::vector<std::string> ThreadNames() {
  std::vector<std::string> vecNames;
  DIR* pDirectory = opendir("/proc/self/task");
  while (const dirent* pEntry = readdir(pDirectory)) {
    std::string strName;
    std::getline(std::ifstream(std::string("/proc/self/task/") + pEntry->d_name + "/comm"), strName);
    vecNames.push_back(strName);
  }
  closedir(pDirectory);
  return vecNames;
}

using ThreadBodyTest = ComponentTest;

class ThreadsTest : public ManagerTest {
 protected:
  void StartAndWait(size_t uTimes = 1) {
    EXPECT_TRUE(m_manager.Start());
    EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, kWorkBegin, uTimes));
    EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, kTimerBegin, uTimes));
    // A thread says that it begins and then marks itself as running.
    while (m_peer.WorkThreadStatus() != 1 || m_peer.TimerThreadStatus() != 1) {
      std::this_thread::yield();
    }
  }
};

TEST_F(ThreadBodyTest, AWorkThreadWithoutAManagerSaysSoAndEnds) {
  pthread_t hThread = 0;
  ASSERT_EQ(0, pthread_create(&hThread, nullptr, CLogCacheMgr::WorkThread, nullptr));
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 4, "**qmlogcache CLogCacheMgr::WorkThread pThis is NULL"));
  EXPECT_EQ(nullptr, CLogCacheMgrPeer::Current());
}

TEST_F(ThreadBodyTest, ATimerThreadWithoutAManagerSaysSoAndEnds) {
  pthread_t hThread = 0;
  ASSERT_EQ(0, pthread_create(&hThread, nullptr, CLogCacheMgr::TimerThread, nullptr));
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 4, "**qmlogcache CLogCacheMgr::TimerThread pThis is NULL"));
  EXPECT_EQ(nullptr, CLogCacheMgrPeer::Current());
}

TEST_F(ThreadsTest, TheThreadsBearTheirNames) {
  StartAndWait();
  const std::vector<std::string> vecNames = ThreadNames();
  EXPECT_EQ(1, std::count(vecNames.begin(), vecNames.end(), "logcachework"));
  EXPECT_EQ(1, std::count(vecNames.begin(), vecNames.end(), "logcachetimer"));
}

TEST_F(ThreadsTest, AThreadHasEndedWhenItSaysSo) {
  StartAndWait();
  std::atomic<int> iWorkStatus{-1};
  std::atomic<int> iTimerStatus{-1};
  CLogCapture::SetHook([&](const LogLine& line) {
    if (line.strText == kWorkEnd) {
      iWorkStatus = m_peer.WorkThreadStatus();
    } else if (line.strText == kTimerEnd) {
      iTimerStatus = m_peer.TimerThreadStatus();
    }
  });
  EXPECT_TRUE(m_manager.Stop());
  while (iWorkStatus == -1 || iTimerStatus == -1) {
    std::this_thread::yield();
  }
  EXPECT_EQ(2, iWorkStatus);
  EXPECT_EQ(2, iTimerStatus);
}

TEST_F(ThreadsTest, ARecordGoesOutOnceTheAgentIsConnected) {
  m_context.SetConnectAnswer(0, 0, "{\"onlineflag\":\"1\"}");
  const unsigned long long u64DataId = AddRecord();
  StartAndWait();
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, "qmlogcache CLogCacheMgr::WorkThread connect server OK"));
  EXPECT_TRUE(m_context.WaitForSends(1));
  EXPECT_EQ(u64DataId, m_context.Sends()[0].u64UserValue);
  EXPECT_TRUE(m_manager.Stop());
}

TEST_F(ThreadsTest, WantOfMemoryInAStepEndsNeitherTheThreadNorTheProcess) {
  std::atomic<bool> bThrown{false};
  CPlatformFaults::SetWaitHook([&](void*, unsigned int) {
    if (!bThrown.exchange(true)) {
      throw std::bad_alloc();
    }
  });
  StartAndWait();
  m_manager.BroadcastConnect();
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 3, "*qmlogcache CLogCacheMgr::RunStep Error what[std::bad_alloc]"));
  AddRecord();
  EXPECT_TRUE(m_context.WaitForSends(1));
  EXPECT_TRUE(m_manager.Stop());
}

TEST_F(ThreadsTest, ABroadcastLetsRecordsGoOut) {
  m_context.SetConnectAnswer(0xE0010001, 0, nullptr);
  AddRecord(0);
  AddRecord(3);
  StartAndWait();
  const unsigned char abData[] = {'1'};
  CLogCacheReceive::m_gReceive.ReceiveCallback(kSenderGuid, 1000, abData, 1, nullptr, nullptr);
  EXPECT_TRUE(m_context.WaitForSends(2));
  EXPECT_EQ(kFirstDataId + 1, m_context.Sends()[0].u64UserValue);  // real-time first
  EXPECT_EQ(kFirstDataId, m_context.Sends()[1].u64UserValue);
  EXPECT_TRUE(m_manager.Stop());
}

TEST_F(ThreadsTest, TheManagerStartsAndStopsAgainAndAgain) {
  for (size_t i = 1; i <= 3; ++i) {
    StartAndWait(i);
    EXPECT_TRUE(m_manager.Stop());
    EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, kWorkEnd, i));
    EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, kTimerEnd, i));
  }
}

TEST_F(ThreadsTest, StartTwiceMakesASecondPairAndOneStopEndsBoth) {
  EXPECT_TRUE(m_manager.Start());
  EXPECT_TRUE(m_manager.Start());
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, kWorkBegin, 2));
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, kTimerBegin, 2));
  EXPECT_EQ(40u, m_context.Registrations().size());
  EXPECT_TRUE(m_manager.Stop());
  CLogCacheMgr::Close();
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, kWorkEnd, 2));
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, kTimerEnd, 2));
}

TEST_F(ThreadsTest, AStopThatComesBeforeTheThreadsHaveBegunEndsThem) {
  // The threads' first line is kept back until the stop has been asked for.
  CLogCapture::SetHook([this](const LogLine& line) {
    if (line.strText == kWorkBegin || line.strText == kTimerBegin) {
      m_context.Block();
    }
  });
  EXPECT_TRUE(m_manager.Start());
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, kWorkBegin));
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, kTimerBegin));
  EXPECT_EQ(0, m_peer.WorkThreadStatus());
  // Stop looks at the threads for the first time after its request.
  CFakeClock::SetMicroSleepHook([this](unsigned int) {
    m_context.Release();
    while (m_peer.WorkThreadStatus() != 2 || m_peer.TimerThreadStatus() != 2) {
      std::this_thread::yield();
    }
  });
  EXPECT_TRUE(m_manager.Stop());
  EXPECT_EQ(2, m_peer.WorkThreadStatus());
  EXPECT_EQ(2, m_peer.TimerThreadStatus());
  EXPECT_TRUE(m_context.Queries().empty());
}

TEST_F(ThreadsTest, AStopRightAfterTheStartEndsTheThreads) {
  for (int i = 0; i < 20; ++i) {
    EXPECT_TRUE(m_manager.Start());
    EXPECT_TRUE(m_manager.Stop());
    EXPECT_EQ(0u, m_peer.WorkThreadId());
    EXPECT_EQ(0u, m_peer.TimerThreadId());
  }
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, kWorkEnd, 20));
  EXPECT_TRUE(CLogCapture::WaitFor(kMainChannel, 2, kTimerEnd, 20));
}

TEST_F(ThreadsTest, ARecordThatWasLeftIsSentAfterARestart) {
  AddRecord();
  StartAndWait();
  EXPECT_TRUE(m_manager.Stop());
  EXPECT_TRUE(m_context.Sends().empty());
  m_manager.BroadcastConnect();
  StartAndWait(2);
  EXPECT_TRUE(m_context.WaitForSends(1));
  EXPECT_TRUE(m_manager.Stop());
}

}  // namespace
