#include "platform/storage_sync.h"

#include <atomic>
#include <cerrno>

#include "platform/api.h"

namespace {

std::atomic<int> g_iStorageSync{2};

}  // namespace

extern "C" {

QM_PLATFORM_API int QmSetStorageSync(int iSync) {
  if (iSync != 1 && iSync != 2) {
    return EINVAL;
  }
  g_iStorageSync.store(iSync, std::memory_order_relaxed);
  return 0;
}

QM_PLATFORM_API int QmGetStorageSync(void) {
  return g_iStorageSync.load(std::memory_order_relaxed);
}

}  // extern "C"
