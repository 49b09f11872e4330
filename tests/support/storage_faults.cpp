#include "tests/support/storage_faults.h"

#include <dlfcn.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "platform/api.h"
#include "platform/base64.h"
#include "platform/file_info.h"
#include "tests/support/allocation_pause.h"

namespace {

struct State {
  std::mutex mutex;  // guards everything below
  std::vector<std::string> vecStatements;
  std::function<int(std::string_view)> execHook;
  std::function<bool(std::string_view)> encodeHook;
  std::function<void(const std::string&)> syncHook;
  std::function<int(std::string_view)> statHook;
  std::function<int(const char*, struct statvfs*)> statvfsHook;
  std::string strModulePath;
  int iModuleErrno = 0;
  bool bThrowOnClose = false;
  unsigned int uFileSyncs = 0;
  unsigned int uDirectorySyncs = 0;
  bool bSkipSyncs = false;
};

State& TheState() {
  static State& state = *new State;  // outlives every thread
  return state;
}

// The library's own function of that name.
template <typename Func>
Func RealFunction(const char* pszName) {
  return reinterpret_cast<Func>(dlsym(RTLD_NEXT, pszName));
}

template <typename Value>
Value Locked(Value State::*pMember) {
  const CAllocationPause pause;
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  return state.*pMember;
}

template <typename Value>
void Set(Value State::*pMember, Value value) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.*pMember = std::move(value);
}

void CountSync(int iFile) {
  struct stat info {};
  const bool bDirectory = fstat(iFile, &info) == 0 && S_ISDIR(info.st_mode);
  State& state = TheState();
  const CAllocationPause pause;
  std::function<void(const std::string&)> hook;
  {
    const std::lock_guard lock(state.mutex);
    ++(bDirectory ? state.uDirectorySyncs : state.uFileSyncs);
    hook = state.syncHook;
  }
  if (hook) {
    hook(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(iFile)).string());
  }
}

// The error number with which the question for a file is to fail, 0 for none.
int StatError(const char* pszPath) {
  const CAllocationPause pause;
  const auto hook = Locked(&State::statHook);
  return hook ? hook(pszPath) : 0;
}

}  // namespace

void CStorageFaults::Reset() {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.vecStatements.clear();
  state.execHook = nullptr;
  state.encodeHook = nullptr;
  state.syncHook = nullptr;
  state.statHook = nullptr;
  state.statvfsHook = nullptr;
  state.strModulePath.clear();
  state.iModuleErrno = 0;
  state.bThrowOnClose = false;
  state.uFileSyncs = 0;
  state.uDirectorySyncs = 0;
  state.bSkipSyncs = false;
}

void CStorageFaults::SkipSyncs(bool bSkip) {
  Set(&State::bSkipSyncs, bSkip);
}

unsigned int CStorageFaults::FileSyncs() {
  return Locked(&State::uFileSyncs);
}

unsigned int CStorageFaults::DirectorySyncs() {
  return Locked(&State::uDirectorySyncs);
}

std::vector<std::string> CStorageFaults::Statements(std::string_view svBeginning) {
  std::vector<std::string> vecFound;
  for (std::string& strSql : Locked(&State::vecStatements)) {
    if (strSql.starts_with(svBeginning)) {
      vecFound.push_back(std::move(strSql));
    }
  }
  return vecFound;
}

void CStorageFaults::SetExecHook(std::function<int(std::string_view)> hook) {
  Set(&State::execHook, std::move(hook));
}

void CStorageFaults::ThrowOnClose(bool bThrow) {
  Set(&State::bThrowOnClose, bThrow);
}

void CStorageFaults::SetEncodeHook(std::function<bool(std::string_view)> hook) {
  Set(&State::encodeHook, std::move(hook));
}

void CStorageFaults::SetSyncHook(std::function<void(const std::string&)> hook) {
  Set(&State::syncHook, std::move(hook));
}

void CStorageFaults::SetStatHook(std::function<int(std::string_view)> hook) {
  Set(&State::statHook, std::move(hook));
}

void CStorageFaults::SetStatvfs(std::function<int(const char*, struct statvfs*)> hook) {
  Set(&State::statvfsHook, std::move(hook));
}

void CStorageFaults::SetModulePath(const std::string& strPath) {
  Set(&State::strModulePath, strPath);
}

void CStorageFaults::FailModulePath(int iErrno) {
  Set(&State::iModuleErrno, iErrno);
}

extern "C" {

QM_PLATFORM_API int sqlite3_exec(sqlite3* pDb, const char* pszSql, int (*pfnCallback)(void*, int, char**, char**),
                                 void* pArg, char** ppszError) {
  static const auto pfnReal = RealFunction<decltype(&sqlite3_exec)>("sqlite3_exec");
  State& state = TheState();
  int iRet = SQLITE_OK;
  {
    const CAllocationPause pause;
    std::function<int(std::string_view)> hook;
    {
      const std::lock_guard lock(state.mutex);
      state.vecStatements.emplace_back(pszSql);
      hook = state.execHook;
    }
    if (hook) {
      iRet = hook(pszSql);
    }
  }
  return iRet != SQLITE_OK ? iRet : pfnReal(pDb, pszSql, pfnCallback, pArg, ppszError);
}

QM_PLATFORM_API int sqlite3_close(sqlite3* pDb) {
  static const auto pfnReal = RealFunction<decltype(&sqlite3_close)>("sqlite3_close");
  const int iRet = pfnReal(pDb);
  if (Locked(&State::bThrowOnClose)) {
    throw std::runtime_error("sqlite3_close");
  }
  return iRet;
}

QM_PLATFORM_API int fsync(int iFile) {
  static const auto pfnReal = RealFunction<int (*)(int)>("fsync");
  CountSync(iFile);
  return Locked(&State::bSkipSyncs) ? 0 : pfnReal(iFile);
}

QM_PLATFORM_API int fdatasync(int iFile) {
  static const auto pfnReal = RealFunction<int (*)(int)>("fdatasync");
  CountSync(iFile);
  return Locked(&State::bSkipSyncs) ? 0 : pfnReal(iFile);
}

QM_PLATFORM_API int stat(const char* pszPath, struct stat* pInfo) noexcept {
  static const auto pfnReal = RealFunction<int (*)(const char*, struct stat*)>("stat");
  const int iError = StatError(pszPath);
  errno = iError != 0 ? iError : errno;
  return iError != 0 ? -1 : pfnReal(pszPath, pInfo);
}

QM_PLATFORM_API int lstat(const char* pszPath, struct stat* pInfo) noexcept {
  static const auto pfnReal = RealFunction<int (*)(const char*, struct stat*)>("lstat");
  const int iError = StatError(pszPath);
  errno = iError != 0 ? iError : errno;
  return iError != 0 ? -1 : pfnReal(pszPath, pInfo);
}

QM_PLATFORM_API char* base64Encode(const char* pData, int iLength, int iReserved) {
  static const auto pfnReal = RealFunction<decltype(&base64Encode)>("base64Encode");
  const auto hook = Locked(&State::encodeHook);
  if (hook && hook({pData, static_cast<size_t>(iLength)})) {
    return nullptr;
  }
  return pfnReal(pData, iLength, iReserved);
}

QM_PLATFORM_API int statvfs(const char* pszPath, struct statvfs* pStat) noexcept {
  static const auto pfnReal = RealFunction<int (*)(const char*, struct statvfs*)>("statvfs");
  const auto hook = Locked(&State::statvfsHook);
  return hook ? hook(pszPath, pStat) : pfnReal(pszPath, pStat);
}

QM_PLATFORM_API int QmGetModuleFilePath(char* pszBuffer, unsigned int uSize) {
  static const auto pfnReal = RealFunction<decltype(&QmGetModuleFilePath)>("QmGetModuleFilePath");
  const std::string strPath = Locked(&State::strModulePath);
  const int iErrno = Locked(&State::iModuleErrno);
  if (iErrno != 0) {
    errno = iErrno;
    return iErrno;
  }
  if (strPath.empty()) {
    return pfnReal(pszBuffer, uSize);
  }
  if (strPath.size() >= uSize) {
    errno = ERANGE;
    return ERANGE;
  }
  memcpy(pszBuffer, strPath.c_str(), strPath.size() + 1);
  return 0;
}

}  // extern "C"
