#include "platform/msg_queue.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <new>

#include "platform/api.h"

namespace {

// The two words of an entry beside its item.
struct Words {
  unsigned long ulFirst;
  unsigned long ulSecond;
};

// A deque gives its blocks back as they empty; only its table of blocks stays, which is let go once the queue is empty
// again after having been this long.
constexpr size_t kLongQueue = 4096;

struct Queue {
  std::mutex mutex;
  std::condition_variable condition;
  std::deque<void*> deqItems;     // guarded by mutex
  std::deque<Words> deqWords;     // guarded by mutex: as long as deqItems, or empty while all words are zero
  size_t uPeak = 0;               // guarded by mutex: longest since it was last empty
  size_t uWaiting = 0;            // guarded by mutex: threads inside the condition's wait
  std::atomic<size_t> uCount{0};  // deqItems.size(), written under mutex, read without: a probe costs no lock
};

// Counts the caller as waiting, also when it leaves the wait because its thread was cancelled.
class CWaiterCount {
 public:
  explicit CWaiterCount(size_t& uWaiting) : m_uWaiting(uWaiting) { ++m_uWaiting; }
  ~CWaiterCount() { --m_uWaiting; }
  CWaiterCount(const CWaiterCount&) = delete;
  CWaiterCount& operator=(const CWaiterCount&) = delete;

 private:
  size_t& m_uWaiting;
};

static_assert(sizeof(void*) <= sizeof(QmMsgQueue::abOpaque));

Queue*& QueueOf(QmMsgQueue* pQueue) {
  return *std::launder(reinterpret_cast<Queue**>(pQueue->abOpaque));
}

// Changes nothing when there is no memory.
void AddBack(Queue& queue, const Words& words, void* pItem) {
  const size_t uCount = queue.deqItems.size();
  const bool bWords = !queue.deqWords.empty() || words.ulFirst != 0 || words.ulSecond != 0;
  if (bWords) {
    queue.deqWords.resize(uCount);
    queue.deqWords.push_back(words);
  }
  try {
    queue.deqItems.push_back(pItem);
  } catch (...) {
    if (bWords) {
      queue.deqWords.pop_back();
    }
    throw;
  }
}

void TakeFront(Queue& queue, QmMsg* pMsg) {
  Words words{0, 0};
  if (!queue.deqWords.empty()) {
    words = queue.deqWords.front();
    queue.deqWords.pop_front();
  }
  *pMsg = QmMsg{words.ulFirst, words.ulSecond, queue.deqItems.front(), 0};
  queue.deqItems.pop_front();
  queue.uCount.store(queue.deqItems.size(), std::memory_order_release);
  if (queue.deqItems.empty()) {
    if (queue.uPeak >= kLongQueue) {
      queue.deqItems.shrink_to_fit();
      queue.deqWords.shrink_to_fit();
    }
    queue.uPeak = 0;
  }
}

}  // namespace

extern "C" {

QM_PLATFORM_API int QmMsgQueueInit(QmMsgQueue* pQueue) {
  if (pQueue == nullptr) {
    return EINVAL;
  }
  Queue* pNew = nullptr;
  try {
    pNew = new Queue;
  } catch (...) {
    // Left null: every later call on the queue fails.
  }
  new (pQueue->abOpaque) Queue*(pNew);
  return pNew == nullptr ? ENOMEM : 0;
}

QM_PLATFORM_API int QmMsgQueueFini(QmMsgQueue* pQueue) {
  if (pQueue == nullptr || QueueOf(pQueue) == nullptr) {
    return EINVAL;
  }
  delete QueueOf(pQueue);
  QueueOf(pQueue) = nullptr;
  return 0;
}

QM_PLATFORM_API int QmMsgQueueInsert(QmMsgQueue* pQueue, unsigned long ulFirst, unsigned long ulSecond, void* pItem) {
  if (pQueue == nullptr || QueueOf(pQueue) == nullptr) {
    return EINVAL;
  }
  Queue& queue = *QueueOf(pQueue);
  bool bSomebodyWaits = false;
  {
    const std::lock_guard lock(queue.mutex);
    try {
      AddBack(queue, {ulFirst, ulSecond}, pItem);
    } catch (...) {
      return ENOMEM;
    }
    const size_t uCount = queue.deqItems.size();
    queue.uPeak = uCount > queue.uPeak ? uCount : queue.uPeak;
    queue.uCount.store(uCount, std::memory_order_release);
    bSomebodyWaits = queue.uWaiting != 0;
  }
  if (bSomebodyWaits) {
    queue.condition.notify_one();
  }
  return 0;
}

QM_PLATFORM_API int QmGetMsgFromQueue(QmMsgQueue* pQueue, QmMsg* pMsg, unsigned int dwWaitMs) {
  if (pQueue == nullptr || pMsg == nullptr || QueueOf(pQueue) == nullptr) {
    return EINVAL;
  }
  Queue& queue = *QueueOf(pQueue);
  if (dwWaitMs == 0 && queue.uCount.load(std::memory_order_acquire) == 0) {
    return EAGAIN;
  }
  std::unique_lock lock(queue.mutex);
  if (queue.deqItems.empty()) {
    if (dwWaitMs == 0) {
      return EAGAIN;
    }
    // A cancellation point: a cancelled thread unwinds through here and leaves neither the lock nor its count behind.
    const CWaiterCount waiter(queue.uWaiting);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(dwWaitMs);
    if (!queue.condition.wait_until(lock, deadline, [&queue] { return !queue.deqItems.empty(); })) {
      return ETIMEDOUT;
    }
  }
  TakeFront(queue, pMsg);
  return 0;
}

QM_PLATFORM_API unsigned long QmGetMsgCount(QmMsgQueue* pQueue) {
  return pQueue == nullptr || QueueOf(pQueue) == nullptr ? 0 : QueueOf(pQueue)->uCount.load(std::memory_order_acquire);
}

}  // extern "C"
