#include "platform/event.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>

#include "platform/api.h"

namespace {

struct Event {
  Event(bool bManual, bool bInitially) : bManualReset(bManual), bSet(bInitially) {}

  const bool bManualReset;
  std::mutex mutex;
  std::condition_variable condition;
  bool bSet;  // guarded by mutex
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
  // Notified under the lock: a waiter that leaves because of this call may destroy the event at once.
  const std::lock_guard lock(pEvent->mutex);
  pEvent->bSet = true;
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
  if (!pEvent->condition.wait_until(lock, deadline, [pEvent] { return pEvent->bSet; })) {
    return ETIMEDOUT;
  }
  if (!pEvent->bManualReset) {
    pEvent->bSet = false;
  }
  return 0;
}

}  // extern "C"
