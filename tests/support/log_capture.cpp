#include "tests/support/log_capture.h"

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "platform/api.h"
#include "platform/log.h"
#include "tests/support/allocation_pause.h"

namespace {

constexpr size_t kCutSize = 1024;
constexpr auto kHangGuard = std::chrono::seconds(60);

struct Channel {
  std::string strName;
};

struct State {
  std::mutex mutex;  // guards everything below
  std::condition_variable changed;
  std::vector<LogLine> vecLines;
  std::function<void(const LogLine&)> hook;
  std::map<std::string, int> mapOpen;
  std::vector<std::unique_ptr<Channel>> vecChannels;  // never shrinks: a handle never dangles
};

State& TheState() {
  static State& state = *new State;  // outlives every thread
  return state;
}

size_t CountLocked(const State& state, const std::string& strChannel, int iLevel, const std::string& strText) {
  size_t uCount = 0;
  for (const LogLine& line : state.vecLines) {
    uCount += line.strChannel == strChannel && line.iLevel == iLevel && line.strText == strText ? 1 : 0;
  }
  return uCount;
}

void Keep(void* hLog, int iLevel, std::string strText) {
  State& state = TheState();
  LogLine line{static_cast<Channel*>(hLog)->strName, iLevel, std::move(strText)};
  std::function<void(const LogLine&)> hook;
  {
    const std::lock_guard lock(state.mutex);
    state.vecLines.push_back(line);
    hook = state.hook;
  }
  state.changed.notify_all();
  if (hook) {
    hook(line);
  }
}

std::string Describe(const std::vector<LogLine>& vecLines) {
  std::string strAll;
  for (const LogLine& line : vecLines) {
    strAll += "  " + line.strChannel + " " + std::to_string(line.iLevel) + " \"" + line.strText + "\"\n";
  }
  return strAll.empty() ? "  (nothing)\n" : strAll;
}

}  // namespace

void CLogCapture::Reset() {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.vecLines.clear();
  state.hook = nullptr;
  state.mapOpen.clear();
}

std::vector<LogLine> CLogCapture::Lines() {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  return state.vecLines;
}

size_t CLogCapture::Count(const std::string& strChannel, int iLevel, const std::string& strText) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  return CountLocked(state, strChannel, iLevel, strText);
}

void CLogCapture::SetHook(std::function<void(const LogLine&)> hook) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  state.hook = std::move(hook);
}

int CLogCapture::OpenCount(const std::string& strChannel) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  return state.mapOpen[strChannel];
}

bool CLogCapture::WaitFor(const std::string& strChannel, int iLevel, const std::string& strText, size_t uTimes) {
  State& state = TheState();
  std::unique_lock lock(state.mutex);
  return state.changed.wait_for(lock, kHangGuard,
                                [&] { return CountLocked(state, strChannel, iLevel, strText) >= uTimes; });
}

::testing::AssertionResult LoggedOnce(const std::string& strChannel, int iLevel, const std::string& strText) {
  const size_t uCount = CLogCapture::Count(strChannel, iLevel, strText);
  if (uCount == 1) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << "logged " << uCount << " times, not once:\n  " << strChannel << " " << iLevel
                                       << " \"" << strText << "\"\nlogged was:\n"
                                       << Describe(CLogCapture::Lines());
}

::testing::AssertionResult NotLogged(const std::string& strText) {
  for (const LogLine& line : CLogCapture::Lines()) {
    if (line.strText == strText) {
      return ::testing::AssertionFailure() << "logged: \"" << strText << "\"";
    }
  }
  return ::testing::AssertionSuccess();
}

::testing::AssertionResult LoggedExactly(const std::vector<LogLine>& vecExpected) {
  const std::vector<LogLine> vecLines = CLogCapture::Lines();
  bool bEqual = vecLines.size() == vecExpected.size();
  for (size_t i = 0; bEqual && i < vecLines.size(); ++i) {
    bEqual = vecLines[i].strChannel == vecExpected[i].strChannel && vecLines[i].iLevel == vecExpected[i].iLevel &&
             vecLines[i].strText == vecExpected[i].strText;
  }
  if (bEqual) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << "expected:\n" << Describe(vecExpected) << "logged:\n" << Describe(vecLines);
}

extern "C" {

QM_PLATFORM_API void* LogInit(const char* pszChannel) {
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  ++state.mapOpen[pszChannel];
  for (const auto& pChannel : state.vecChannels) {
    if (pChannel->strName == pszChannel) {
      return pChannel.get();
    }
  }
  state.vecChannels.push_back(std::make_unique<Channel>(Channel{pszChannel}));
  return state.vecChannels.back().get();
}

QM_PLATFORM_API void LogPrint(void* hLog, int iLevel, const char* pszFormat, ...) {
  const CAllocationPause pause;
  if (hLog == nullptr) {
    return;
  }
  va_list arguments;
  va_start(arguments, pszFormat);
  va_list again;
  va_copy(again, arguments);
  const int iLength = vsnprintf(nullptr, 0, pszFormat, arguments);
  va_end(arguments);
  // As the library does: a line that finds no memory is cut.
  size_t uSize = iLength > 0 ? static_cast<size_t>(iLength) + 1 : 1;
  std::unique_ptr<char[]> pText(new (std::nothrow) char[uSize]);
  if (pText == nullptr) {
    uSize = kCutSize;
    pText = std::make_unique<char[]>(uSize);
  }
  vsnprintf(pText.get(), uSize, pszFormat, again);
  va_end(again);
  Keep(hLog, iLevel, pText.get());
}

QM_PLATFORM_API void LogPrintStr(void* hLog, int iLevel, const char* pszText) {
  const CAllocationPause pause;
  if (hLog != nullptr) {
    Keep(hLog, iLevel, pszText);
  }
}

QM_PLATFORM_API void LogUninit(void* hLog) {
  if (hLog == nullptr) {
    return;
  }
  State& state = TheState();
  const std::lock_guard lock(state.mutex);
  --state.mapOpen[static_cast<Channel*>(hLog)->strName];
}

}  // extern "C"
