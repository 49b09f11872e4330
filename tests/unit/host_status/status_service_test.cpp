// The status as a whole, and what a directory that hangs or cannot be opened does to it.
#include "host/status/status_service.h"

#include <dirent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>

#include "host/service/loop.h"
#include "host/status/cache_directory.h"
#include "status_test_support.h"

namespace {

// After a look that took long, the next one is put off by twenty times as long.
constexpr std::chrono::seconds kHangGuard{300};

enum class Disk { Well, Fails, Hangs };

std::mutex g_lock;
std::condition_variable g_changed;
Disk g_disk = Disk::Well;
bool g_bIsWaitedFor = false;

void SetDisk(Disk disk) {
  const std::lock_guard lock(g_lock);
  g_disk = disk;
  g_changed.notify_all();
}

}  // namespace

extern "C" DIR* fdopendir(int iDirectory) {
  static const auto pfnReal = reinterpret_cast<DIR* (*)(int)>(dlsym(RTLD_NEXT, "fdopendir"));
  std::unique_lock lock(g_lock);
  g_bIsWaitedFor = g_disk == Disk::Hangs;
  g_changed.notify_all();
  g_changed.wait(lock, [] { return g_disk != Disk::Hangs; });
  if (g_disk == Disk::Fails) {
    errno = ENOMEM;
    return nullptr;
  }
  return pfnReal(iDirectory);
}

namespace {

size_t OpenDescriptors() {
  size_t uCount = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++uCount;
  }
  return uCount;
}

TEST(StatusServiceTest, ADirectoryThatCannotBeListedStaysNotOpen) {
  const CStatusDirectory directory;
  const size_t uBefore = OpenDescriptors();
  SetDisk(Disk::Fails);
  const bool bReadable = ScanCacheDirectory(directory.Path()).bReadable;
  SetDisk(Disk::Well);
  EXPECT_FALSE(bReadable);
  EXPECT_EQ(OpenDescriptors(), uBefore);
}

TEST(StatusServiceTest, TheWatchdogDoesNotWaitForADiskThatHangs) {
  const CStatusDirectory prefix;
  std::filesystem::create_directories(prefix.Path("bin"));
  std::filesystem::create_directories(prefix.Path("data/qmlogcache"));
  StatusSources sources;
  sources.strProgramDirectory = prefix.Path("bin");
  sources.fnIntake = [] { return IntakeCounts(); };
  sources.fnLink = [] { return ServerLinkCounts(); };
  sources.fnDownReason = [] { return std::string(); };
  // Not an address of this machine: nothing is served, and all is looked at.
  const auto pService = CreateStatusService({"192.0.2.1", 1}, sources);
  std::string strError;
  ASSERT_TRUE(pService->Start(strError)) << strError;
  {
    std::unique_lock lock(g_lock);
    g_disk = Disk::Hangs;
    EXPECT_TRUE(g_changed.wait_for(lock, kHangGuard, [] { return g_bIsWaitedFor; }));
  }
  CLoop::AskAll();
  EXPECT_EQ(CLoop::WakeLate(), "");
  SetDisk(Disk::Well);
}

}  // namespace
