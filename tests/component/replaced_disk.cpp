#include "replaced_disk.h"

#include <dlfcn.h>
#include <sys/statvfs.h>

#include <atomic>

namespace {
constexpr uint64_t kReal = UINT64_MAX;
constexpr uint64_t kFragment = 512;
std::atomic<uint64_t> g_u64Free{kReal};
}  // namespace

void CReplacedDisk::Reset() {
  g_u64Free = kReal;
}

void CReplacedDisk::ShowFree(uint64_t u64Bytes) {
  g_u64Free = u64Bytes;
}

extern "C" __attribute__((visibility("default"))) int statvfs(const char* pszPath, struct statvfs* pInfo) noexcept {
  using Function = int (*)(const char*, struct statvfs*);
  static const auto pfnReal = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "statvfs"));
  const int iRet = pfnReal(pszPath, pInfo);
  const uint64_t u64Free = g_u64Free;
  if (iRet == 0 && u64Free != kReal) {
    pInfo->f_frsize = kFragment;
    pInfo->f_bsize = 8 * kFragment;
    pInfo->f_bfree = u64Free / kFragment;
    pInfo->f_bavail = 0;
  }
  return iRet;
}
