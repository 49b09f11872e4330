// The socket's file, the start and the stop.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <future>
#include <thread>

#include "tests/unit/host_ingress/descriptor_shortage.h"
#include "tests/unit/host_ingress/ingress_fixture.h"

namespace {

class IngressLifecycleTest : public IngressTest {
 protected:
  // A socket file whose owner has gone.
  void LeaveStaleSocket() {
    const int iSocket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, Path().c_str(), Path().size());
    ASSERT_EQ(::bind(iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ::close(iSocket);
  }
};

TEST_F(IngressLifecycleTest, TheSocketIsOpenToEveryUserWhateverTheUmask) {
  const mode_t uOld = ::umask(0077);
  Serve();
  ::umask(uOld);
  struct stat info {};
  ASSERT_EQ(::lstat(Path().c_str(), &info), 0);
  EXPECT_TRUE(S_ISSOCK(info.st_mode));
  EXPECT_EQ(info.st_mode & 07777, 0666U);
}

TEST_F(IngressLifecycleTest, AStaleSocketIsReplaced) {
  LeaveStaleSocket();
  Serve();
  CTestProducer producer(Path());
  ASSERT_TRUE(producer.SendMessage(1, "x"));
  EXPECT_EQ(producer.ReadAnswers(1).size(), 1U);
}

TEST_F(IngressLifecycleTest, ALiveSocketIsLeftAlone) {
  Serve();
  EXPECT_NE(StartError().find("another process"), std::string::npos);
  CTestProducer producer(Path());
  ASSERT_TRUE(producer.SendMessage(1, "x"));
  EXPECT_EQ(producer.ReadAnswers(1).size(), 1U);
}

TEST_F(IngressLifecycleTest, ARegularFileIsLeftAlone) {
  std::ofstream(Path()) << "precious";
  EXPECT_NE(StartError().find("not a socket"), std::string::npos);
  std::string strContent;
  std::ifstream(Path()) >> strContent;
  EXPECT_EQ(strContent, "precious");
}

TEST_F(IngressLifecycleTest, ASymbolicLinkIsNotFollowed) {
  LeaveStaleSocket();
  const std::string strTarget = Path();
  m_options.strSocketPath = m_strDirectory + "/link.sock";
  std::filesystem::create_symlink(strTarget, Path());
  EXPECT_NE(StartError().find("not a socket"), std::string::npos);
  EXPECT_TRUE(std::filesystem::is_symlink(Path()));
  EXPECT_TRUE(std::filesystem::exists(strTarget));
}

TEST_F(IngressLifecycleTest, APathTooLongForAnAddressIsAnError) {
  m_options.strSocketPath = m_strDirectory + "/" + std::string(108 - m_strDirectory.size() - 1, 's');
  ASSERT_EQ(Path().size(), 108U);
  EXPECT_NE(StartError().find("107"), std::string::npos);
  m_options.strSocketPath.pop_back();
  EXPECT_EQ(StartError(), "");
  m_options.strSocketPath.clear();
  EXPECT_NE(StartError(), "");
}

TEST_F(IngressLifecycleTest, AMissingDirectoryIsAnError) {
  m_options.strSocketPath = m_strDirectory + "/none/in.sock";
  EXPECT_NE(StartError(), "");
}

TEST_F(IngressLifecycleTest, LimitsThatServeNobodyAreErrors) {
  const IngressOptions good = m_options;
  m_options.uThreads = 0;
  EXPECT_NE(StartError(), "");
  m_options = good;
  m_options.uWindow = 0;
  EXPECT_NE(StartError(), "");
  m_options = good;
  m_options.uMaxFrame = 31;
  EXPECT_NE(StartError(), "");
}

TEST_F(IngressLifecycleTest, AStopTellsProducersAndRemovesTheSocket) {
  Serve();
  CTestProducer producer(Path());
  CTestProducer greeting(Path(), false);
  ASSERT_TRUE(producer.SendMessage(1, "x"));
  EXPECT_EQ(producer.ReadAnswers(1).size(), 1U);
  m_pServer->Stop();
  EXPECT_EQ(producer.ReadUntilFailure(), IngressFailure::Stopping);
  EXPECT_FALSE(std::filesystem::exists(Path()));
  EXPECT_FALSE(CTestProducer(Path(), false).IsConnected());
  m_pServer->Stop();
}

TEST_F(IngressLifecycleTest, AStopLeavesAnotherFileAtItsPlaceAlone) {
  Serve();
  std::filesystem::remove(Path());
  std::ofstream(Path()) << "another";
  m_pServer->Stop();
  EXPECT_TRUE(std::filesystem::is_regular_file(Path()));
}

TEST_F(IngressLifecycleTest, AServerCanFollowAnother) {
  Serve();
  m_pServer->Stop();
  Serve();
  CTestProducer producer(Path());
  ASSERT_TRUE(producer.SendMessage(1, "x"));
  EXPECT_EQ(producer.ReadAnswers(1).size(), 1U);
}

TEST_F(IngressLifecycleTest, AStopWithoutAStartDoesNothing) {
  CFakeRouter router;
  const auto pServer = CreateIngressServer(m_options, router);
  pServer->Stop();
}

TEST_F(IngressLifecycleTest, AStopWaitsForTheDeliveryThatRunsAndAnswersIt) {
  std::promise<void> entered;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::atomic<bool> bDelivered{false};
  Serve([&](const Delivery& delivery) {
    entered.set_value();
    released.wait();
    bDelivered = true;
    delivery.Reply();
    return 0U;
  });
  CTestProducer producer(Path());
  ASSERT_TRUE(producer.SendMessage(1, "x"));
  entered.get_future().wait();
  bool bDeliveredBeforeTheStopEnded = false;
  std::thread stopper([&] {
    m_pServer->Stop();
    bDeliveredBeforeTheStopEnded = bDelivered;
  });
  release.set_value();
  EXPECT_EQ(producer.ReadAnswers(1).count(1), 1U);
  EXPECT_EQ(producer.ReadUntilFailure(), IngressFailure::Stopping);
  stopper.join();
  EXPECT_TRUE(bDeliveredBeforeTheStopEnded);
}

TEST_F(IngressLifecycleTest, RepliesAfterTheServerHasGoneAreDropped) {
  Serve([](const Delivery&) { return 0U; });
  CTestProducer producer(Path());
  ASSERT_TRUE(producer.SendMessage(1, "x"));
  ASSERT_TRUE(m_pRouter->WaitForCount(1));
  const auto vecLate = m_pRouter->Deliveries();
  m_pServer.reset();
  vecLate[0].Reply();
  EXPECT_EQ(producer.ReadUntilFailure(), IngressFailure::Stopping);
}

TEST_F(IngressLifecycleTest, AStopWhileProducersAndRepliesAreBusyEndsCleanly) {
  std::mutex mutex;
  std::vector<Delivery> vecHeld;
  Serve([&](const Delivery& delivery) {
    const std::lock_guard<std::mutex> lock(mutex);
    vecHeld.push_back(delivery);
    return 0U;
  });
  std::atomic<bool> bOver{false};
  std::vector<std::thread> vecThreads;
  for (int i = 0; i < 4; ++i) {
    vecThreads.emplace_back([&] {
      CTestProducer producer(Path());
      for (uint64_t u64Id = 0; producer.SendMessage(u64Id, "x") && producer.ReadFrame(); ++u64Id) {
      }
    });
  }
  vecThreads.emplace_back([&] {
    while (!bOver) {
      std::vector<Delivery> vecTaken;
      {
        const std::lock_guard<std::mutex> lock(mutex);
        vecTaken.swap(vecHeld);
      }
      for (const Delivery& delivery : vecTaken) {
        delivery.Reply();
      }
      std::this_thread::yield();
    }
  });
  ASSERT_TRUE(m_pRouter->WaitForCount(500));
  m_pServer->Stop();
  bOver = true;
  for (std::thread& thread : vecThreads) {
    thread.join();
  }
  EXPECT_FALSE(std::filesystem::exists(Path()));
}

TEST_F(IngressLifecycleTest, GoesOnAcceptingAfterDescriptorsRanOut) {
  Serve();
  g_descriptorShortage.uRefused = 0;
  g_descriptorShortage.bOn = true;
  CTestProducer producer(Path(), false);
  std::string strHello;
  AppendHello(strHello);
  EXPECT_TRUE(producer.SendBytes(strHello));
  const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (g_descriptorShortage.uRefused < 2 && std::chrono::steady_clock::now() < guard) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_GE(g_descriptorShortage.uRefused, 2U) << "refused, and tried again in vain";
  EXPECT_FALSE(producer.HasInputWithin(0));
  g_descriptorShortage.bOn = false;
  IngressWelcome welcome;
  const auto strFrame = producer.ReadFrame();
  EXPECT_TRUE(strFrame && ReadWelcome(*strFrame, welcome));
}

TEST_F(IngressLifecycleTest, LeavesDescriptorsToTheRestOfTheProcess) {
  constexpr size_t kLeft = 64;
  constexpr size_t kConnections = 3;
  rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
  rlimit low = old;
  low.rlim_cur = kLeft + kConnections;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
  Serve();
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &old), 0);
  std::vector<std::unique_ptr<CTestProducer>> vecProducers;
  for (size_t i = 0; i < kConnections; ++i) {
    vecProducers.push_back(std::make_unique<CTestProducer>(Path()));
  }
  EXPECT_TRUE(CTestProducer(Path(), false).ReadEnd());
  for (const auto& pProducer : vecProducers) {
    ASSERT_TRUE(pProducer->SendMessage(1, "x"));
    EXPECT_EQ(pProducer->ReadAnswers(1).size(), 1U);
  }
}

// The producer's socket is full and it reads nothing: the stop must not wait for it.
TEST_F(IngressLifecycleTest, AStopIsNotHeldUpByAProducerThatDoesNotRead) {
  m_options.uStallTimeoutMs = 600000;
  Serve([](const Delivery& delivery) {
    delivery.Reply(0, std::string(4096, 't'));
    return 0U;
  });
  CTestProducer producer(Path());
  for (uint64_t i = 0; i < 200; ++i) {
    ASSERT_TRUE(producer.SendMessage(i, "x"));
  }
  ASSERT_TRUE(m_pRouter->WaitForCount(200));
  m_pServer->Stop();
  EXPECT_FALSE(std::filesystem::exists(Path()));
}

}  // namespace
