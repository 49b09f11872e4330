#include "tests/power_cut/disk_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <utility>

#include "platform/api.h"

namespace {

constexpr size_t kMaxDescriptors = 4096;

struct Descriptor {
  enum class Kind { Other, File, Directory } kind = Kind::Other;
  CSimulatedDisk::FileId file = 0;
};

struct Watch {
  std::string strDirectory;
  CSimulatedDisk* pDisk = nullptr;  // null: plain delegation
  uint64_t u64Calls = 0;
  uint64_t u64LastCall = 0;
  std::function<void()> atLastCall;
  std::array<Descriptor, kMaxDescriptors> descriptors;
};

Watch& TheWatch() {
  static Watch& watch = *new Watch;
  return watch;
}

template <typename Func>
Func RealFunction(const char* pszName) {
  return reinterpret_cast<Func>(dlsym(RTLD_NEXT, pszName));
}

bool Watching() {
  return TheWatch().pDisk != nullptr;
}

void CountCall() {
  Watch& watch = TheWatch();
  if (++watch.u64Calls == watch.u64LastCall) {
    watch.atLastCall();
    abort();
  }
}

// The file's name when it lies in the watched directory and is no shared memory.
std::optional<std::string> WatchedName(const char* pszPath) {
  const std::string& strDirectory = TheWatch().strDirectory;
  const std::string strPath(pszPath);
  if (!Watching() || !strPath.starts_with(strDirectory + "/") || strPath.size() == strDirectory.size() + 1) {
    return std::nullopt;
  }
  std::string strName = strPath.substr(strDirectory.size() + 1);
  return IsSharedMemoryName(strName) ? std::nullopt : std::optional(std::move(strName));
}

Descriptor DescriptorOf(int iFile) {
  return Watching() && iFile >= 0 && static_cast<size_t>(iFile) < kMaxDescriptors
             ? TheWatch().descriptors[static_cast<size_t>(iFile)]
             : Descriptor();
}

void SetDescriptor(int iFile, Descriptor descriptor) {
  if (static_cast<size_t>(iFile) >= kMaxDescriptors) {
    abort();
  }
  TheWatch().descriptors[static_cast<size_t>(iFile)] = descriptor;
}

int Open(const char* pszPath, int iFlags, mode_t uMode) {
  static const auto pfnReal = RealFunction<int (*)(const char*, int, ...)>("open");
  const int iFile = pfnReal(pszPath, iFlags, uMode);
  if (iFile < 0 || !Watching()) {
    return iFile;
  }
  Watch& watch = TheWatch();
  SetDescriptor(iFile, {});
  if (pszPath == watch.strDirectory || pszPath == watch.strDirectory + "/") {
    SetDescriptor(iFile, {Descriptor::Kind::Directory, 0});
    return iFile;
  }
  const auto strName = WatchedName(pszPath);
  if (!strName) {
    return iFile;
  }
  const auto known = watch.pDisk->Find(*strName);
  if (known) {
    SetDescriptor(iFile, {Descriptor::Kind::File, *known});
    if ((iFlags & O_TRUNC) != 0) {
      watch.pDisk->Resize(*known, 0);
      CountCall();
    }
  } else {
    SetDescriptor(iFile, {Descriptor::Kind::File, watch.pDisk->Create(*strName)});
    CountCall();
  }
  return iFile;
}

void Written(int iFile, const void* pData, ssize_t iWritten, off_t iOffset) {
  const Descriptor descriptor = DescriptorOf(iFile);
  if (descriptor.kind == Descriptor::Kind::File && iWritten > 0) {
    TheWatch().pDisk->Write(descriptor.file, static_cast<uint64_t>(iOffset),
                            {static_cast<const char*>(pData), static_cast<size_t>(iWritten)});
    CountCall();
  }
}

ssize_t WriteAt(int iFile, const void* pData, size_t uSize, off_t iOffset) {
  static const auto pfnReal = RealFunction<ssize_t (*)(int, const void*, size_t, off_t)>("pwrite");
  const ssize_t iWritten = pfnReal(iFile, pData, uSize, iOffset);
  Written(iFile, pData, iWritten, iOffset);
  return iWritten;
}

int Truncate(int iFile, off_t iSize) {
  static const auto pfnReal = RealFunction<int (*)(int, off_t)>("ftruncate");
  const int iRet = pfnReal(iFile, iSize);
  const Descriptor descriptor = DescriptorOf(iFile);
  if (iRet == 0 && descriptor.kind == Descriptor::Kind::File) {
    TheWatch().pDisk->Resize(descriptor.file, static_cast<uint64_t>(iSize));
    CountCall();
  }
  return iRet;
}

int Sync(int iFile) {
  const Descriptor descriptor = DescriptorOf(iFile);
  if (descriptor.kind == Descriptor::Kind::File) {
    CountCall();
    TheWatch().pDisk->SyncFile(descriptor.file);
  } else if (descriptor.kind == Descriptor::Kind::Directory) {
    CountCall();
    TheWatch().pDisk->SyncNames();
  }
  return 0;
}

int Removed(const char* pszPath, int iRet) {
  const auto strName = WatchedName(pszPath);
  if (iRet == 0 && strName) {
    TheWatch().pDisk->Remove(*strName);
    CountCall();
  }
  return iRet;
}

}  // namespace

void WatchDisk(const std::string& strDirectory, CSimulatedDisk& disk, uint64_t u64LastCall,
               std::function<void()> atLastCall) {
  Watch& watch = TheWatch();
  watch.strDirectory = strDirectory;
  watch.pDisk = &disk;
  watch.u64Calls = 0;
  watch.u64LastCall = u64LastCall;
  watch.atLastCall = std::move(atLastCall);
  watch.descriptors.fill({});
}

uint64_t WatchedCalls() {
  return TheWatch().u64Calls;
}

void StopWatching() {
  TheWatch().pDisk = nullptr;
}

extern "C" {

QM_PLATFORM_API int open(const char* pszPath, int iFlags, ...) {
  va_list arguments;
  va_start(arguments, iFlags);
  const mode_t uMode = (iFlags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return Open(pszPath, iFlags, uMode);
}

QM_PLATFORM_API int open64(const char* pszPath, int iFlags, ...) {
  va_list arguments;
  va_start(arguments, iFlags);
  const mode_t uMode = (iFlags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return Open(pszPath, iFlags, uMode);
}

QM_PLATFORM_API int close(int iFile) {
  static const auto pfnReal = RealFunction<int (*)(int)>("close");
  if (DescriptorOf(iFile).kind != Descriptor::Kind::Other) {
    SetDescriptor(iFile, {});
  }
  return pfnReal(iFile);
}

QM_PLATFORM_API ssize_t write(int iFile, const void* pData, size_t uSize) {
  static const auto pfnReal = RealFunction<ssize_t (*)(int, const void*, size_t)>("write");
  const bool bWatched = DescriptorOf(iFile).kind == Descriptor::Kind::File;
  const off_t iOffset = bWatched ? lseek(iFile, 0, SEEK_CUR) : 0;
  const ssize_t iWritten = pfnReal(iFile, pData, uSize);
  Written(iFile, pData, iWritten, iOffset);
  return iWritten;
}

QM_PLATFORM_API ssize_t pwrite(int iFile, const void* pData, size_t uSize, off_t iOffset) {
  return WriteAt(iFile, pData, uSize, iOffset);
}

QM_PLATFORM_API ssize_t pwrite64(int iFile, const void* pData, size_t uSize, off_t iOffset) {
  return WriteAt(iFile, pData, uSize, iOffset);
}

QM_PLATFORM_API int ftruncate(int iFile, off_t iSize) noexcept {
  return Truncate(iFile, iSize);
}

QM_PLATFORM_API int ftruncate64(int iFile, off_t iSize) noexcept {
  return Truncate(iFile, iSize);
}

QM_PLATFORM_API int fsync(int iFile) {
  return Sync(iFile);
}

QM_PLATFORM_API int fdatasync(int iFile) {
  return Sync(iFile);
}

QM_PLATFORM_API int unlink(const char* pszPath) noexcept {
  static const auto pfnReal = RealFunction<int (*)(const char*)>("unlink");
  return Removed(pszPath, pfnReal(pszPath));
}

QM_PLATFORM_API int remove(const char* pszPath) noexcept {
  static const auto pfnReal = RealFunction<int (*)(const char*)>("remove");
  return Removed(pszPath, pfnReal(pszPath));
}

QM_PLATFORM_API int rename(const char* pszOld, const char* pszNew) noexcept {
  static const auto pfnReal = RealFunction<int (*)(const char*, const char*)>("rename");
  const auto strOld = WatchedName(pszOld);
  const auto strNew = WatchedName(pszNew);
  const int iRet = pfnReal(pszOld, pszNew);
  if (iRet == 0 && strOld && strNew) {
    TheWatch().pDisk->Rename(*strOld, *strNew);
    CountCall();
  }
  return iRet;
}

}  // extern "C"
