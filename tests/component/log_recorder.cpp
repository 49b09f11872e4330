#include "log_recorder.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>

#include "hang_guard.h"
#include "platform/log.h"

CLogRecorder& CLogRecorder::Get() {
  static auto* pRecorder = new CLogRecorder;  // never destroyed: a thread of the component may print until the very end
  return *pRecorder;
}

void CLogRecorder::Reset() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  m_vecLines.clear();
  m_pfnTap = nullptr;
  m_uLinesAfterClose = 0;
}

void CLogRecorder::SetTap(std::function<void(const LogLine&)> pfnTap) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  m_pfnTap = std::move(pfnTap);
}

std::vector<LogLine> CLogRecorder::Lines(std::string_view svPrefix) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  std::vector<LogLine> vecLines;
  std::copy_if(m_vecLines.begin(), m_vecLines.end(), std::back_inserter(vecLines),
               [&](const LogLine& line) { return line.strText.starts_with(svPrefix); });
  return vecLines;
}

size_t CLogRecorder::CountLocked(std::string_view svPrefix) {
  return static_cast<size_t>(std::count_if(m_vecLines.begin(), m_vecLines.end(),
                                           [&](const LogLine& line) { return line.strText.starts_with(svPrefix); }));
}

size_t CLogRecorder::Count(std::string_view svPrefix) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return CountLocked(svPrefix);
}

bool CLogRecorder::WaitForLines(std::string_view svPrefix, size_t uCount) {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_changed.wait_for(lock, kHangGuard, [&] { return CountLocked(svPrefix) >= uCount; });
}

std::string CLogRecorder::WaitForText(std::string_view svPrefix) {
  if (!WaitForLines(svPrefix)) {
    return {};
  }
  return Lines(svPrefix).front().strText;
}

int CLogRecorder::OpenChannels() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return static_cast<int>(std::count_if(m_vecChannels.begin(), m_vecChannels.end(),
                                        [](const Channel* pChannel) { return pChannel->bOpen; }));
}

size_t CLogRecorder::LinesAfterClose() {
  const std::lock_guard<std::mutex> guard(m_mutex);
  return m_uLinesAfterClose;
}

void* CLogRecorder::Open(const char* pszChannel) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  m_vecChannels.push_back(new Channel{pszChannel});
  return m_vecChannels.back();
}

void CLogRecorder::Close(void* hLog) {
  const std::lock_guard<std::mutex> guard(m_mutex);
  static_cast<Channel*>(hLog)->bOpen = false;
}

void CLogRecorder::Print(void* hLog, int iLevel, std::string strText) {
  const auto* pChannel = static_cast<const Channel*>(hLog);
  const std::lock_guard<std::mutex> guard(m_mutex);
  if (!pChannel->bOpen) {
    ++m_uLinesAfterClose;
  }
  LogLine line{pChannel->strName, iLevel, std::move(strText)};
  if (m_pfnTap) {
    m_pfnTap(line);
    return;
  }
  m_vecLines.push_back(std::move(line));
  m_changed.notify_all();
}

std::string LogField(std::string_view svText, std::string_view svName) {
  const std::string strOpen = std::string(svName) + "[";
  for (size_t uAt = svText.find(strOpen); uAt != std::string_view::npos; uAt = svText.find(strOpen, uAt + 1)) {
    if (uAt != 0 && svText[uAt - 1] != ' ') {
      continue;  // the end of a longer name
    }
    const size_t uBegin = uAt + strOpen.size();
    return std::string(svText.substr(uBegin, svText.find(']', uBegin) - uBegin));
  }
  return {};
}

#define HOST_EXPORT __attribute__((visibility("default")))

extern "C" {
HOST_EXPORT void* LogInit(const char* pszChannel) {
  return CLogRecorder::Get().Open(pszChannel);
}

HOST_EXPORT void LogPrintStr(void* hLog, int iLevel, const char* pszText) {
  if (hLog != nullptr) {
    CLogRecorder::Get().Print(hLog, iLevel, pszText);
  }
}

HOST_EXPORT void LogPrint(void* hLog, int iLevel, const char* pszFormat, ...) {
  if (hLog == nullptr) {
    return;
  }
  va_list arguments;
  va_start(arguments, pszFormat);
  va_list again;
  va_copy(again, arguments);
  const int iLength = std::vsnprintf(nullptr, 0, pszFormat, arguments);
  va_end(arguments);
  std::string strText(static_cast<size_t>(std::max(iLength, 0)), '\0');
  std::vsnprintf(strText.data(), strText.size() + 1, pszFormat, again);
  va_end(again);
  CLogRecorder::Get().Print(hLog, iLevel, std::move(strText));
}

HOST_EXPORT void LogUninit(void* hLog) {
  if (hLog != nullptr) {
    CLogRecorder::Get().Close(hLog);
  }
}
}
