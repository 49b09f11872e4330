#include "tests/support/platform_faults.h"

#include <dlfcn.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <mutex>
#include <utility>

#include "platform/api.h"
#include "platform/event.h"
#include "platform/msg_queue.h"
#include "tests/support/allocation_pause.h"

namespace {

constexpr size_t kKeptCalls = 100000;

struct State {
  std::mutex mutex;  // guards everything below
  bool bRefuseInserts = false;
  bool bRefuseEvents = false;
  unsigned int dwLongestWait = UINT_MAX;
  std::function<void(void*)> setHook;
  std::function<void()> insertHook;
  std::function<void(void*, unsigned int)> waitHook;
  std::vector<unsigned int> vecWaits;
};

State& TheState() {
  static State& state = *new State;  // outlives every thread
  return state;
}

// The platform library's own function of that name.
template <typename Func>
Func RealFunction(const char* pszName) {
  return reinterpret_cast<Func>(dlsym(RTLD_NEXT, pszName));
}

}  // namespace

void CPlatformFaults::Reset() {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.bRefuseInserts = false;
  state.bRefuseEvents = false;
  state.dwLongestWait = UINT_MAX;
  state.setHook = nullptr;
  state.insertHook = nullptr;
  state.waitHook = nullptr;
  state.vecWaits.clear();
}

void CPlatformFaults::RefuseQueueInserts(bool bRefuse) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.bRefuseInserts = bRefuse;
}

void CPlatformFaults::RefuseEvents(bool bRefuse) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.bRefuseEvents = bRefuse;
}

void CPlatformFaults::SetEventHook(std::function<void(void*)> hook) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.setHook = std::move(hook);
}

void CPlatformFaults::SetInsertHook(std::function<void()> hook) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.insertHook = std::move(hook);
}

void CPlatformFaults::ShortenWaits(unsigned int dwMilliseconds) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.dwLongestWait = dwMilliseconds;
}

void CPlatformFaults::SetWaitHook(std::function<void(void*, unsigned int)> hook) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.waitHook = std::move(hook);
}

std::vector<unsigned int> CPlatformFaults::Waits() {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  return state.vecWaits;
}

extern "C" {

QM_PLATFORM_API int QmMsgQueueInsert(QmMsgQueue* pQueue, unsigned long ulFirst, unsigned long ulSecond, void* pItem) {
  static const auto pfnReal = RealFunction<decltype(&QmMsgQueueInsert)>("QmMsgQueueInsert");
  State& state = TheState();
  {
    const CAllocationPause pause;
    std::function<void()> hook;
    {
      const std::lock_guard lock(state.mutex);
      hook = state.insertHook;
    }
    if (hook) {
      hook();
    }
  }
  bool bRefuse = false;
  {
    const std::lock_guard lock(state.mutex);
    bRefuse = state.bRefuseInserts;
  }
  return bRefuse ? ENOMEM : pfnReal(pQueue, ulFirst, ulSecond, pItem);
}

QM_PLATFORM_API void* QmCreateEvent(int bManualReset, int bInitialState, const char* pszName, void* pReserved) {
  static const auto pfnReal = RealFunction<decltype(&QmCreateEvent)>("QmCreateEvent");
  State& state = TheState();
  {
    const std::lock_guard lock(state.mutex);
    if (state.bRefuseEvents) {
      return nullptr;
    }
  }
  return pfnReal(bManualReset, bInitialState, pszName, pReserved);
}

QM_PLATFORM_API int QmSetEvent(void* hEvent) {
  static const auto pfnReal = RealFunction<decltype(&QmSetEvent)>("QmSetEvent");
  State& state = TheState();
  {
    const CAllocationPause pause;
    std::function<void(void*)> hook;
    {
      const std::lock_guard lock(state.mutex);
      hook = state.setHook;
    }
    if (hook) {
      hook(hEvent);
    }
  }
  return pfnReal(hEvent);
}

QM_PLATFORM_API int QmWaitEventTimeout(void* hEvent, unsigned int dwMilliseconds) {
  static const auto pfnReal = RealFunction<decltype(&QmWaitEventTimeout)>("QmWaitEventTimeout");
  State& state = TheState();
  std::function<void(void*, unsigned int)> hook;
  unsigned int dwWait = dwMilliseconds;
  {
    const std::lock_guard lock(state.mutex);
    dwWait = std::min(dwMilliseconds, state.dwLongestWait);
    hook = state.waitHook;
    if (state.vecWaits.size() < kKeptCalls) {
      state.vecWaits.push_back(dwMilliseconds);
    }
  }
  if (hook) {
    hook(hEvent, dwMilliseconds);
  }
  return pfnReal(hEvent, dwWait);
}

}  // extern "C"
