#include "failing_calls.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/cpstring.h"
#include "platform/event.h"
#include "platform/msg_queue.h"
#include "tests/component/plugin_host.h"

#define HOST_EXPORT __attribute__((visibility("default")))

namespace {

std::atomic<CallKind> g_kind{CallKind::None};
std::atomic<uint64_t> g_u64Nth{0};
std::atomic<bool> g_bAndAllAfter{false};
std::atomic<uint64_t> g_u64Count{0};

bool Fails(CallKind kind) {
  if (g_kind.load(std::memory_order_relaxed) != kind) {
    return false;
  }
  const uint64_t u64Call = ++g_u64Count;
  return u64Call == g_u64Nth || (u64Call > g_u64Nth && g_bAndAllAfter);
}

template <typename Function>
Function Next(const char* pszName) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, pszName));
}

// The platform library and zlib come with the component, and so are not next to the executable.
template <typename Function>
Function OfComponent(const char* pszName) {
  return reinterpret_cast<Function>(dlsym(GetLoadedPlugin().hLibrary, pszName));
}

template <typename Result>
Result Fail(int iError, Result result) {
  errno = iError;
  return result;
}

}  // namespace

CFailingCalls::CFailingCalls(CallKind kind, uint64_t u64Nth, bool bAndAllAfter) {
  g_u64Count = 0;
  g_u64Nth = u64Nth;
  g_bAndAllAfter = bAndAllAfter;
  g_kind = kind;
}

CFailingCalls::~CFailingCalls() {
  g_kind = CallKind::None;
}

uint64_t CFailingCalls::Count() {
  return g_u64Count;
}

extern "C" {

// --- SQLite ---
HOST_EXPORT int sqlite3_open_v2(const char* pszPath, sqlite3** ppDb, int iFlags, const char* pszVfs) {
  static const auto pfnReal = Next<decltype(&sqlite3_open_v2)>("sqlite3_open_v2");
  if (Fails(CallKind::Sqlite)) {
    *ppDb = nullptr;
    return SQLITE_NOMEM;
  }
  return pfnReal(pszPath, ppDb, iFlags, pszVfs);
}
HOST_EXPORT int sqlite3_exec(sqlite3* pDb, const char* pszSql, int (*pfnCallback)(void*, int, char**, char**),
                             void* pArg, char** ppszError) {
  static const auto pfnReal = Next<decltype(&sqlite3_exec)>("sqlite3_exec");
  return Fails(CallKind::Sqlite) ? SQLITE_IOERR : pfnReal(pDb, pszSql, pfnCallback, pArg, ppszError);
}
HOST_EXPORT int sqlite3_prepare_v2(sqlite3* pDb, const char* pszSql, int iBytes, sqlite3_stmt** ppStmt,
                                   const char** ppszTail) {
  static const auto pfnReal = Next<decltype(&sqlite3_prepare_v2)>("sqlite3_prepare_v2");
  if (Fails(CallKind::Sqlite)) {
    *ppStmt = nullptr;
    return SQLITE_NOMEM;
  }
  return pfnReal(pDb, pszSql, iBytes, ppStmt, ppszTail);
}
HOST_EXPORT int sqlite3_step(sqlite3_stmt* pStmt) {
  static const auto pfnReal = Next<decltype(&sqlite3_step)>("sqlite3_step");
  return Fails(CallKind::Sqlite) ? SQLITE_IOERR : pfnReal(pStmt);
}
HOST_EXPORT int sqlite3_wal_checkpoint_v2(sqlite3* pDb, const char* pszDb, int iMode, int* piLog, int* piCkpt) {
  static const auto pfnReal = Next<decltype(&sqlite3_wal_checkpoint_v2)>("sqlite3_wal_checkpoint_v2");
  return Fails(CallKind::Sqlite) ? SQLITE_IOERR : pfnReal(pDb, pszDb, iMode, piLog, piCkpt);
}

// --- Files ---
HOST_EXPORT int open(const char* pszPath, int iFlags, ...) {
  static const auto pfnReal = Next<int (*)(const char*, int, ...)>("open");
  va_list args;
  va_start(args, iFlags);
  const mode_t mode = (iFlags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  return Fails(CallKind::File) ? Fail(EMFILE, -1) : pfnReal(pszPath, iFlags, mode);
}
HOST_EXPORT int open64(const char* pszPath, int iFlags, ...) {
  static const auto pfnReal = Next<int (*)(const char*, int, ...)>("open64");
  va_list args;
  va_start(args, iFlags);
  const mode_t mode = (iFlags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  return Fails(CallKind::File) ? Fail(EMFILE, -1) : pfnReal(pszPath, iFlags, mode);
}
HOST_EXPORT ssize_t pread64(int iFile, void* pBuffer, size_t uSize, off64_t iAt) {
  static const auto pfnReal = Next<ssize_t (*)(int, void*, size_t, off64_t)>("pread64");
  return Fails(CallKind::File) ? Fail<ssize_t>(EIO, -1) : pfnReal(iFile, pBuffer, uSize, iAt);
}
HOST_EXPORT ssize_t pwrite64(int iFile, const void* pBuffer, size_t uSize, off64_t iAt) {
  static const auto pfnReal = Next<ssize_t (*)(int, const void*, size_t, off64_t)>("pwrite64");
  return Fails(CallKind::File) ? Fail<ssize_t>(ENOSPC, -1) : pfnReal(iFile, pBuffer, uSize, iAt);
}
HOST_EXPORT int fsync(int iFile) {
  static const auto pfnReal = Next<int (*)(int)>("fsync");
  return Fails(CallKind::File) ? Fail(EIO, -1) : pfnReal(iFile);
}
HOST_EXPORT int fdatasync(int iFile) {
  static const auto pfnReal = Next<int (*)(int)>("fdatasync");
  return Fails(CallKind::File) ? Fail(EIO, -1) : pfnReal(iFile);
}
HOST_EXPORT int ftruncate64(int iFile, off64_t iSize) noexcept {
  static const auto pfnReal = Next<int (*)(int, off64_t)>("ftruncate64");
  return Fails(CallKind::File) ? Fail(EIO, -1) : pfnReal(iFile, iSize);
}
HOST_EXPORT int lstat(const char* pszPath, struct stat* pInfo) noexcept {
  static const auto pfnReal = Next<int (*)(const char*, struct stat*)>("lstat");
  return Fails(CallKind::File) ? Fail(EIO, -1) : pfnReal(pszPath, pInfo);
}
HOST_EXPORT int stat64(const char* pszPath, struct stat64* pInfo) noexcept {
  static const auto pfnReal = Next<int (*)(const char*, struct stat64*)>("stat64");
  return Fails(CallKind::File) ? Fail(EIO, -1) : pfnReal(pszPath, pInfo);
}
HOST_EXPORT int fstat64(int iFile, struct stat64* pInfo) noexcept {
  static const auto pfnReal = Next<int (*)(int, struct stat64*)>("fstat64");
  return Fails(CallKind::File) ? Fail(EIO, -1) : pfnReal(iFile, pInfo);
}

// --- Directories ---
HOST_EXPORT int mkdir(const char* pszPath, mode_t mode) noexcept {
  static const auto pfnReal = Next<int (*)(const char*, mode_t)>("mkdir");
  return Fails(CallKind::Directory) ? Fail(ENOSPC, -1) : pfnReal(pszPath, mode);
}
HOST_EXPORT DIR* opendir(const char* pszPath) {
  static const auto pfnReal = Next<DIR* (*)(const char*)>("opendir");
  return Fails(CallKind::Directory) ? Fail<DIR*>(EMFILE, nullptr) : pfnReal(pszPath);
}
HOST_EXPORT char* realpath(const char* pszPath, char* pszResolved) noexcept {
  static const auto pfnReal = Next<char* (*)(const char*, char*)>("realpath");
  return Fails(CallKind::Directory) ? Fail<char*>(ENOMEM, nullptr) : pfnReal(pszPath, pszResolved);
}
HOST_EXPORT int rename(const char* pszFrom, const char* pszTo) noexcept {
  static const auto pfnReal = Next<int (*)(const char*, const char*)>("rename");
  return Fails(CallKind::Directory) ? Fail(EIO, -1) : pfnReal(pszFrom, pszTo);
}
HOST_EXPORT int remove(const char* pszPath) noexcept {
  static const auto pfnReal = Next<int (*)(const char*)>("remove");
  return Fails(CallKind::Directory) ? Fail(EIO, -1) : pfnReal(pszPath);
}
HOST_EXPORT int unlink(const char* pszPath) noexcept {
  static const auto pfnReal = Next<int (*)(const char*)>("unlink");
  return Fails(CallKind::Directory) ? Fail(EIO, -1) : pfnReal(pszPath);
}

// --- zlib ---
HOST_EXPORT gzFile gzopen(const char* pszPath, const char* pszMode) {
  static const auto pfnReal = OfComponent<gzFile (*)(const char*, const char*)>("gzopen");
  return Fails(CallKind::Zlib) ? nullptr : pfnReal(pszPath, pszMode);
}
HOST_EXPORT gzFile gzdopen(int iFile, const char* pszMode) {
  static const auto pfnReal = OfComponent<gzFile (*)(int, const char*)>("gzdopen");
  return Fails(CallKind::Zlib) ? nullptr : pfnReal(iFile, pszMode);
}
HOST_EXPORT int gzwrite(gzFile pFile, voidpc pData, unsigned int uSize) {
  static const auto pfnReal = OfComponent<int (*)(gzFile, voidpc, unsigned int)>("gzwrite");
  return Fails(CallKind::Zlib) ? 0 : pfnReal(pFile, pData, uSize);
}
HOST_EXPORT int gzread(gzFile pFile, voidp pData, unsigned int uSize) {
  static const auto pfnReal = OfComponent<int (*)(gzFile, voidp, unsigned int)>("gzread");
  return Fails(CallKind::Zlib) ? -1 : pfnReal(pFile, pData, uSize);
}

// --- Threads ---
HOST_EXPORT int pthread_create(pthread_t* pThread, const pthread_attr_t* pAttributes, void* (*pfnBody)(void*),
                               void* pArgument) noexcept {
  static const auto pfnReal =
      Next<int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
  return Fails(CallKind::Thread) ? EAGAIN : pfnReal(pThread, pAttributes, pfnBody, pArgument);
}

// --- The platform library ---
HOST_EXPORT void* QmCreateEvent(int bManualReset, int bInitialState, const char* pszName, void* pReserved) {
  static const auto pfnReal = OfComponent<decltype(&QmCreateEvent)>("QmCreateEvent");
  return Fails(CallKind::Event) ? nullptr : pfnReal(bManualReset, bInitialState, pszName, pReserved);
}
HOST_EXPORT int QmMsgQueueInsert(QmMsgQueue* pQueue, unsigned long ulFirst, unsigned long ulSecond, void* pItem) {
  static const auto pfnReal = OfComponent<decltype(&QmMsgQueueInsert)>("QmMsgQueueInsert");
  return Fails(CallKind::Queue) ? ENOMEM : pfnReal(pQueue, ulFirst, ulSecond, pItem);
}
}

inline namespace qmplatform_v1 {
CPString CPString::Allocate(size_t uLength, char** ppBytes) {
  static const auto pfnReal = OfComponent<CPString (*)(size_t, char**)>("_ZN13qmplatform_v18CPString8AllocateEmPPc");
  if (Fails(CallKind::Payload)) {
    throw std::bad_alloc();
  }
  return pfnReal(uLength, ppBytes);
}
CPString::CPString(std::string_view svText) {
  char* pBytes = nullptr;
  *this = Allocate(svText.size(), &pBytes);
  if (pBytes != nullptr) {
    std::memcpy(pBytes, svText.data(), svText.size());
  }
}
void CPString::Release() noexcept {
  static const auto pfnReal = OfComponent<void (*)(CPString*)>("_ZN13qmplatform_v18CPString7ReleaseEv");
  pfnReal(this);
}
}  // namespace qmplatform_v1
