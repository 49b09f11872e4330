#include "platform/event.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>

#include "platform/api.h"

namespace {

struct Event {
  Event(bool bManual, bool bInitially) : bManualReset(bManual), uSet(bInitially ? 1 : 0) {}

  const bool bManualReset;
  std::mutex mutex;
  std::condition_variable condition;
  // Written under mutex. An event that is set already is set again without it: the look at it is a read-modify-write, so
  // that whoever resets the event afterwards sees all that was done before.
  std::atomic<unsigned char> uSet;
};

}  // namespace

extern "C" {

QM_PLATFORM_API void* QmCreateEvent(int bManualReset, int bInitialState, const char* /*pszName*/, void* /*pReserved*/) {
  return new (std::nothrow) Event(bManualReset != 0, bInitialState != 0);
}

QM_PLATFORM_API int QmSetEvent(void* hEvent) {
  if (hEvent == nullptr) {
    return EINVAL;
  }
  auto* pEvent = static_cast<Event*>(hEvent);
  if (pEvent->uSet.fetch_or(0, std::memory_order_acq_rel) != 0) {
    return 0;
  }
  // Notified under the lock: a waiter that leaves because of this call may destroy the event at once.
  const std::lock_guard lock(pEvent->mutex);
  pEvent->uSet.store(1, std::memory_order_release);
  if (pEvent->bManualReset) {
    pEvent->condition.notify_all();
  } else {
    pEvent->condition.notify_one();
  }
  return 0;
}

QM_PLATFORM_API int QmDestroyEvent(void* hEvent) {
  if (hEvent == nullptr) {
    return EINVAL;
  }
  delete static_cast<Event*>(hEvent);
  return 0;
}

// The wait is a cancellation point. A cancelled thread unwinds through here, and the lock's guard lets the mutex go.
QM_PLATFORM_API int QmWaitEventTimeout(void* hEvent, unsigned int dwMilliseconds) {
  if (hEvent == nullptr) {
    return EINVAL;
  }
  auto* pEvent = static_cast<Event*>(hEvent);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(dwMilliseconds);
  std::unique_lock lock(pEvent->mutex);
  if (!pEvent->condition.wait_until(lock, deadline,
                                    [pEvent] { return pEvent->uSet.load(std::memory_order_acquire) != 0; })) {
    return ETIMEDOUT;
  }
  if (!pEvent->bManualReset) {
    pEvent->uSet.exchange(0, std::memory_order_acq_rel);
  }
  return 0;
}

}  // extern "C"
