#include "platform/msg_queue.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <thread>
#include <vector>

namespace {

constexpr unsigned kLong = 60000;  // a hang guard: no test waits for it when all is well

void* ItemOf(uintptr_t uValue) {
  return reinterpret_cast<void*>(uValue);
}

class MsgQueueTest : public testing::Test {
 protected:
  MsgQueueTest() { EXPECT_EQ(QmMsgQueueInit(&m_queue), 0); }
  ~MsgQueueTest() override { EXPECT_EQ(QmMsgQueueFini(&m_queue), 0); }

  QmMsgQueue m_queue;
};

TEST_F(MsgQueueTest, FirstInFirstOutWithEveryWord) {
  EXPECT_EQ(QmMsgQueueInsert(&m_queue, 1, 2, ItemOf(3)), 0);
  EXPECT_EQ(QmMsgQueueInsert(&m_queue, ~0UL, 0, nullptr), 0);
  EXPECT_EQ(QmGetMsgCount(&m_queue), 2u);
  QmMsg msg{};
  EXPECT_EQ(QmGetMsgFromQueue(&m_queue, &msg, 0), 0);
  EXPECT_EQ(msg.ulFirst, 1u);
  EXPECT_EQ(msg.ulSecond, 2u);
  EXPECT_EQ(msg.pItem, ItemOf(3));
  EXPECT_EQ(QmGetMsgFromQueue(&m_queue, &msg, 0), 0);
  EXPECT_EQ(msg.ulFirst, ~0UL);
  EXPECT_EQ(msg.ulSecond, 0u);
  EXPECT_EQ(msg.pItem, nullptr);
  EXPECT_EQ(QmGetMsgCount(&m_queue), 0u);
}

TEST_F(MsgQueueTest, EachItemKeepsItsOwnWordsWhereOthersHaveNone) {
  constexpr uintptr_t kItems = 1000;
  for (uintptr_t u = 1; u <= kItems; ++u) {
    EXPECT_EQ(QmMsgQueueInsert(&m_queue, u % 7 == 0 ? u : 0, u % 11 == 0 ? u : 0, ItemOf(u)), 0);
  }
  for (uintptr_t u = 1; u <= kItems; ++u) {
    QmMsg msg{8, 8, nullptr, 8};
    ASSERT_EQ(QmGetMsgFromQueue(&m_queue, &msg, 0), 0);
    EXPECT_EQ(msg.ulFirst, u % 7 == 0 ? u : 0);
    EXPECT_EQ(msg.ulSecond, u % 11 == 0 ? u : 0);
    EXPECT_EQ(msg.pItem, ItemOf(u));
  }
}

TEST_F(MsgQueueTest, AnEmptyQueueGivesNothingAndLeavesTheMessageAlone) {
  QmMsg msg{7, 8, ItemOf(9), 10};
  EXPECT_NE(QmGetMsgFromQueue(&m_queue, &msg, 0), 0);
  EXPECT_NE(QmGetMsgFromQueue(&m_queue, &msg, 1), 0);
  EXPECT_EQ(msg.ulFirst, 7u);
  EXPECT_EQ(msg.pItem, ItemOf(9));
}

TEST_F(MsgQueueTest, TimesOutNoSoonerThanAsked) {
  QmMsg msg;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_NE(QmGetMsgFromQueue(&m_queue, &msg, 30), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(30));
}

TEST_F(MsgQueueTest, KeepsHalfAMillionInOrderAndCanBeFilledAgain) {
  for (int iFill = 0; iFill < 2; ++iFill) {
    for (uintptr_t uItem = 1; uItem <= 500000; ++uItem) {
      ASSERT_EQ(QmMsgQueueInsert(&m_queue, 0, 0, ItemOf(uItem)), 0);
    }
    EXPECT_EQ(QmGetMsgCount(&m_queue), 500000u);
    QmMsg msg;
    for (uintptr_t uItem = 1; uItem <= 500000; ++uItem) {
      ASSERT_EQ(QmGetMsgFromQueue(&m_queue, &msg, 0), 0);
      ASSERT_EQ(msg.pItem, ItemOf(uItem));
    }
    EXPECT_EQ(QmGetMsgCount(&m_queue), 0u);
  }
}

TEST_F(MsgQueueTest, FiniForgetsWhatIsLeft) {
  QmMsgQueue queue;
  ASSERT_EQ(QmMsgQueueInit(&queue), 0);
  EXPECT_EQ(QmMsgQueueInsert(&queue, 1, 2, ItemOf(3)), 0);
  EXPECT_EQ(QmMsgQueueFini(&queue), 0);
  QmMsg msg;
  EXPECT_NE(QmMsgQueueInsert(&queue, 1, 2, ItemOf(3)), 0);
  EXPECT_NE(QmGetMsgFromQueue(&queue, &msg, 0), 0);
  EXPECT_EQ(QmGetMsgCount(&queue), 0u);
  EXPECT_NE(QmMsgQueueFini(&queue), 0);
}

TEST_F(MsgQueueTest, AWaitingThreadGetsWhatIsInserted) {
  QmMsg msg{};
  int iResult = -1;
  std::thread waiter([&] { iResult = QmGetMsgFromQueue(&m_queue, &msg, kLong); });
  EXPECT_EQ(QmMsgQueueInsert(&m_queue, 4, 5, ItemOf(6)), 0);
  waiter.join();
  EXPECT_EQ(iResult, 0);
  EXPECT_EQ(msg.pItem, ItemOf(6));
}

TEST_F(MsgQueueTest, ConcurrentProducersKeepTheirOrderAndNothingIsLostOrDoubled) {
  constexpr uintptr_t kProducers = 3;
  constexpr uintptr_t kEach = 20000;
  std::vector<std::thread> vecProducers;
  for (uintptr_t uProducer = 0; uProducer < kProducers; ++uProducer) {
    vecProducers.emplace_back([this, uProducer] {
      for (uintptr_t uItem = 1; uItem <= kEach; ++uItem) {
        ASSERT_EQ(QmMsgQueueInsert(&m_queue, uProducer, uItem, ItemOf(uItem)), 0);
      }
    });
  }
  std::atomic<uintptr_t> uTaken{0};
  std::vector<std::thread> vecConsumers;
  for (int iConsumer = 0; iConsumer < 2; ++iConsumer) {
    vecConsumers.emplace_back([this, &uTaken] {
      std::map<unsigned long, unsigned long> mapLast;
      QmMsg msg;
      // The last message of all tells the consumers to end.
      while (QmGetMsgFromQueue(&m_queue, &msg, kLong) == 0 && msg.pItem != nullptr) {
        ASSERT_LT(mapLast[msg.ulFirst], msg.ulSecond);
        mapLast[msg.ulFirst] = msg.ulSecond;
        ++uTaken;
      }
    });
  }
  for (std::thread& thread : vecProducers) {
    thread.join();
  }
  for (size_t uConsumer = 0; uConsumer < vecConsumers.size(); ++uConsumer) {
    ASSERT_EQ(QmMsgQueueInsert(&m_queue, 0, ~0UL, nullptr), 0);
  }
  for (std::thread& thread : vecConsumers) {
    thread.join();
  }
  EXPECT_EQ(uTaken.load(), kProducers * kEach);
  EXPECT_EQ(QmGetMsgCount(&m_queue), 0u);
}

TEST_F(MsgQueueTest, ACancelledWaitLeavesTheQueueUsable) {
  for (int iRound = 0; iRound < 20; ++iRound) {
    pthread_t thread;
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void* pQueue) -> void* {
                    QmMsg msg;
                    QmGetMsgFromQueue(static_cast<QmMsgQueue*>(pQueue), &msg, kLong);
                    return nullptr;
                  },
                  &m_queue),
              0);
    if (iRound % 2 == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));  // lets it get into the wait; either way it must end
    }
    ASSERT_EQ(pthread_cancel(thread), 0);
    void* pResult = nullptr;
    ASSERT_EQ(pthread_join(thread, &pResult), 0);
    EXPECT_EQ(pResult, PTHREAD_CANCELED);
    QmMsg msg;
    EXPECT_EQ(QmMsgQueueInsert(&m_queue, 1, 2, ItemOf(3)), 0);
    EXPECT_EQ(QmGetMsgFromQueue(&m_queue, &msg, 0), 0);
  }
}

TEST_F(MsgQueueTest, NullIsRefused) {
  QmMsg msg;
  EXPECT_NE(QmMsgQueueInit(nullptr), 0);
  EXPECT_NE(QmMsgQueueInsert(nullptr, 0, 0, nullptr), 0);
  EXPECT_NE(QmGetMsgFromQueue(nullptr, &msg, 0), 0);
  EXPECT_NE(QmGetMsgFromQueue(&m_queue, nullptr, 0), 0);
  EXPECT_EQ(QmGetMsgCount(nullptr), 0u);
  EXPECT_NE(QmMsgQueueFini(nullptr), 0);
}

}  // namespace
