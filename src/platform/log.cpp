#include "platform/log.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "platform/api.h"
#include "platform/log_channel.h"

namespace {

constexpr size_t kStackText = 1024;
constexpr std::string_view kCutMark = " [cut: no memory]";

std::atomic<uint32_t> g_dwLevels{1U << kLogWarning | 1U << kLogMissing | 1U << kLogLifecycle};

bool IsLevelOn(int iLevel) {
  return iLevel >= 1 && iLevel <= 31 && (g_dwLevels.load(std::memory_order_relaxed) >> iLevel & 1U) != 0;
}

struct LogObserver {
  std::string strChannel;
  void (*pfnObserver)(const char* pText, unsigned long uLength, void* pUser) = nullptr;
  void* pUser = nullptr;
};

// The level that is observed, so that lines of all others cost one look; 0 for none.
std::atomic<int> g_iObservedLevel{0};
std::mutex g_mutexObserver;  // guards g_observer; held while the observer is called
LogObserver g_observer;

void Observe(const CLogChannel& channel, int iLevel, std::string_view svText) {
  if (g_iObservedLevel.load(std::memory_order_relaxed) != iLevel) {
    return;
  }
  const std::lock_guard lock(g_mutexObserver);
  if (g_observer.pfnObserver != nullptr && g_observer.strChannel == channel.Name()) {
    g_observer.pfnObserver(svText.data(), svText.size(), g_observer.pUser);
  }
}

void Print(CLogChannel& channel, int iLevel, std::string_view svText) {
  Observe(channel, iLevel, svText);
  channel.Print(iLevel, svText);
}

// A thread that is cancelled inside the library would leave its locks held: cancellation waits until the call is over.
// The caller's errno is not disturbed either.
class CQuietCall {
 public:
  CQuietCall() : m_iErrno(errno) { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_iState); }
  ~CQuietCall() {
    int iIgnored = 0;
    pthread_setcancelstate(m_iState, &iIgnored);
    errno = m_iErrno;
  }
  CQuietCall(const CQuietCall&) = delete;
  CQuietCall& operator=(const CQuietCall&) = delete;

 private:
  const int m_iErrno;
  int m_iState = PTHREAD_CANCEL_ENABLE;
};

void PrintFormatted(CLogChannel& channel, int iLevel, const char* pszFormat, va_list args) {
  va_list argsAgain;
  va_copy(argsAgain, args);
  char szText[kStackText + kCutMark.size()];
  const int iLength = std::vsnprintf(szText, kStackText, pszFormat, args);
  if (iLength < 0) {
    Print(channel, iLevel, pszFormat);  // an argument could not be printed; the format still tells what happened
  } else if (static_cast<size_t>(iLength) < kStackText) {
    Print(channel, iLevel, std::string_view(szText, static_cast<size_t>(iLength)));
  } else {
    const size_t uSize = static_cast<size_t>(iLength) + 1;
    const std::unique_ptr<char[]> pText(new (std::nothrow) char[uSize]);
    if (pText != nullptr) {
      std::vsnprintf(pText.get(), uSize, pszFormat, argsAgain);
      Print(channel, iLevel, std::string_view(pText.get(), uSize - 1));
    } else {
      std::memcpy(szText + kStackText - 1, kCutMark.data(), kCutMark.size());
      Print(channel, iLevel, std::string_view(szText, kStackText - 1 + kCutMark.size()));
    }
  }
  va_end(argsAgain);
}

}  // namespace

extern "C" {

QM_PLATFORM_API void* LogInit(const char* pszChannel) {
  if (pszChannel == nullptr) {
    return nullptr;
  }
  const CQuietCall quietCall;
  try {
    CLogChannel* pChannel = FindOrMakeLogChannel(pszChannel);
    if (pChannel != nullptr) {
      pChannel->Open();
    }
    return pChannel;
  } catch (...) {
    return nullptr;
  }
}

QM_PLATFORM_API void LogPrint(void* hLog, int iLevel, const char* pszFormat, ...) {
  if (hLog == nullptr || !IsLevelOn(iLevel) || pszFormat == nullptr) {
    return;
  }
  auto* pChannel = static_cast<CLogChannel*>(hLog);
  if (!pChannel->IsOpen()) {
    return;
  }
  const CQuietCall quietCall;
  va_list args;
  va_start(args, pszFormat);
  PrintFormatted(*pChannel, iLevel, pszFormat, args);
  va_end(args);
}

QM_PLATFORM_API void LogPrintStr(void* hLog, int iLevel, const char* pszText) {
  if (hLog == nullptr || !IsLevelOn(iLevel) || pszText == nullptr || !static_cast<CLogChannel*>(hLog)->IsOpen()) {
    return;
  }
  const CQuietCall quietCall;
  Print(*static_cast<CLogChannel*>(hLog), iLevel, pszText);
}

QM_PLATFORM_API void LogUninit(void* hLog) {
  if (hLog != nullptr) {
    const CQuietCall quietCall;
    static_cast<CLogChannel*>(hLog)->Close();
  }
}

QM_PLATFORM_API int QmLogConfigure(const char* pszDirectory, unsigned int dwLevels, unsigned long long u64MaxFileSize,
                                   unsigned int dwMaxFiles) {
  if (pszDirectory == nullptr || *pszDirectory == '\0' || u64MaxFileSize == 0 || dwMaxFiles == 0) {
    return EINVAL;
  }
  const CQuietCall quietCall;
  try {
    // Files are opened again at every rotation: the process may have changed its directory by then.
    SetLogFileSettings({std::filesystem::absolute(pszDirectory).string(), u64MaxFileSize, dwMaxFiles});
  } catch (...) {
    return ENOMEM;
  }
  g_dwLevels.store(dwLevels, std::memory_order_relaxed);
  return 0;
}

QM_PLATFORM_API int QmLogObserve(const char* pszChannel, int iLevel,
                                 void (*pfnObserver)(const char* pText, unsigned long uLength, void* pUser),
                                 void* pUser) {
  if (pszChannel == nullptr) {
    return EINVAL;
  }
  const CQuietCall quietCall;
  try {
    LogObserver observer{pszChannel, pfnObserver, pUser};
    const std::lock_guard lock(g_mutexObserver);
    std::swap(g_observer, observer);
    g_iObservedLevel.store(pfnObserver != nullptr ? iLevel : 0, std::memory_order_relaxed);
  } catch (...) {
    return ENOMEM;
  }
  return 0;
}

}  // extern "C"
