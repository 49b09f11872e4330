#include "kill_switch.h"

#include <dlfcn.h>
#include <sqlite3.h>
#include <unistd.h>
#include <zlib.h>

#include <array>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstdio>
#include <vector>

namespace {

std::atomic<const KillPoint*> g_pPoint{nullptr};
std::atomic<unsigned int> g_uOccurrences{0};
// The statements that this thread is running; those run by a statement's hooks stand behind it.
thread_local std::vector<std::string_view> g_vecStatements;

bool RunsInside(const std::string& strWithin) {
  for (const std::string_view svStatement : g_vecStatements) {
    if (svStatement.starts_with(strWithin)) {
      return true;
    }
  }
  return strWithin.empty();
}

// The statement stands on this thread's list while it lives.
class CStatementScope {
 public:
  explicit CStatementScope(const char* pszStatement) { g_vecStatements.emplace_back(pszStatement); }
  ~CStatementScope() { g_vecStatements.pop_back(); }
  CStatementScope(const CStatementScope&) = delete;
  CStatementScope& operator=(const CStatementScope&) = delete;
};

template <typename Func>
Func RealFunction(const char* pszName) {
  return reinterpret_cast<Func>(dlsym(RTLD_NEXT, pszName));
}

struct RowCallback {
  int (*pfnCallback)(void*, int, char**, char**);
  void* pArg;
};

int OneRow(void* pArg, int nColumn, char** ppValue, char** ppName) {
  const auto& row = *static_cast<const RowCallback*>(pArg);
  const CWatchedCall call("row", "");
  return row.pfnCallback(row.pArg, nColumn, ppValue, ppName);
}

}  // namespace

void ArmKillSwitch(const KillPoint& point) {
  g_pPoint = new KillPoint(point);  // never freed: it is looked at until the end
}

CWatchedCall::CWatchedCall(const char* pszCall, std::string_view svDetail) {
  Begin(pszCall, svDetail);
}

CWatchedCall::CWatchedCall(const char* pszCall, int iFile) {
  const KillPoint* pPoint = g_pPoint;
  if (pPoint == nullptr || pPoint->strCall != pszCall) {
    return;
  }
  std::array<char, PATH_MAX> path{};
  const std::string strLink = "/proc/self/fd/" + std::to_string(iFile);
  const ssize_t iLength = readlink(strLink.c_str(), path.data(), path.size());
  Begin(pszCall, {path.data(), static_cast<size_t>(iLength < 0 ? 0 : iLength)});
}

void CWatchedCall::Begin(const char* pszCall, std::string_view svDetail) {
  const KillPoint* pPoint = g_pPoint;
  if (pPoint == nullptr || pPoint->strCall != pszCall ||
      !(svDetail.starts_with(pPoint->strDetail) || svDetail.ends_with(pPoint->strDetail)) ||
      !RunsInside(pPoint->strWithin) || ++g_uOccurrences != pPoint->uOccurrence) {
    return;
  }
  switch (pPoint->moment) {
    case Moment::Before:
      EndProcess();
    case Moment::Halfway:
      m_bHalfway = true;
      break;
    case Moment::After:
      m_bAfter = true;
      break;
  }
}

CWatchedCall::~CWatchedCall() {
  if (m_bAfter) {
    EndProcess();
  }
}

void CWatchedCall::EndProcess() {
  kill(getpid(), SIGKILL);
  for (;;) {
    pause();
  }
}

#define HOST_EXPORT __attribute__((visibility("default")))

extern "C" {
HOST_EXPORT int sqlite3_exec(sqlite3* pDb, const char* pszSql, int (*pfnCallback)(void*, int, char**, char**),
                             void* pArg, char** ppszError) {
  static const auto pfnReal = RealFunction<decltype(&sqlite3_exec)>("sqlite3_exec");
  const CStatementScope scope(pszSql);
  const CWatchedCall call("sqlite3_exec", pszSql);
  RowCallback row{pfnCallback, pArg};
  return pfnCallback == nullptr ? pfnReal(pDb, pszSql, nullptr, pArg, ppszError)
                                : pfnReal(pDb, pszSql, OneRow, &row, ppszError);
}

HOST_EXPORT int sqlite3_wal_checkpoint_v2(sqlite3* pDb, const char* pszDatabase, int iMode, int* piLog,
                                          int* piCheckpointed) {
  static const auto pfnReal = RealFunction<decltype(&sqlite3_wal_checkpoint_v2)>("sqlite3_wal_checkpoint_v2");
  const CStatementScope scope("checkpoint");
  const CWatchedCall call("sqlite3_wal_checkpoint_v2", "");
  return pfnReal(pDb, pszDatabase, iMode, piLog, piCheckpointed);
}

HOST_EXPORT int rename(const char* pszOld, const char* pszNew) noexcept {
  static const auto pfnReal = RealFunction<int (*)(const char*, const char*)>("rename");
  const CWatchedCall call("rename", pszNew);
  return pfnReal(pszOld, pszNew);
}

HOST_EXPORT int remove(const char* pszPath) noexcept {
  static const auto pfnReal = RealFunction<int (*)(const char*)>("remove");
  const CWatchedCall call("remove", pszPath);
  return pfnReal(pszPath);
}

HOST_EXPORT int unlink(const char* pszPath) noexcept {
  static const auto pfnReal = RealFunction<int (*)(const char*)>("unlink");
  const CWatchedCall call("unlink", pszPath);
  return pfnReal(pszPath);
}

HOST_EXPORT gzFile gzopen(const char* pszPath, const char* pszMode) {
  static const auto pfnReal = RealFunction<gzFile (*)(const char*, const char*)>("gzopen");
  const CWatchedCall call("gzopen", pszPath);
  return pfnReal(pszPath, pszMode);
}

HOST_EXPORT int gzwrite(gzFile pFile, const void* pData, unsigned int uSize) {
  static const auto pfnReal = RealFunction<decltype(&gzwrite)>("gzwrite");
  const CWatchedCall call("gzwrite", "");
  return pfnReal(pFile, pData, uSize);
}

HOST_EXPORT int gzclose(gzFile pFile) {
  static const auto pfnReal = RealFunction<decltype(&gzclose)>("gzclose");
  const CWatchedCall call("gzclose", "");
  return pfnReal(pFile);
}

HOST_EXPORT int fsync(int iFile) {
  const CWatchedCall call("fsync", iFile);
  return 0;
}

HOST_EXPORT int fdatasync(int iFile) {
  const CWatchedCall call("fdatasync", iFile);
  return 0;
}

HOST_EXPORT int ftruncate64(int iFile, off64_t iSize) noexcept {
  static const auto pfnReal = RealFunction<int (*)(int, off64_t)>("ftruncate64");
  const CWatchedCall call("ftruncate", iFile);
  return pfnReal(iFile, iSize);
}

HOST_EXPORT ssize_t pwrite64(int iFile, const void* pData, size_t uSize, off64_t iOffset) {
  static const auto pfnReal = RealFunction<ssize_t (*)(int, const void*, size_t, off64_t)>("pwrite64");
  const CWatchedCall call("pwrite", iFile);
  if (call.EndsHalfway()) {
    static_cast<void>(pfnReal(iFile, pData, uSize / 2, iOffset));
    CWatchedCall::EndProcess();
  }
  return pfnReal(iFile, pData, uSize, iOffset);
}
}
