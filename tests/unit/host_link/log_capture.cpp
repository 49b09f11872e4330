#include "log_capture.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "platform/log.h"

namespace {

std::mutex g_mutexLines;
std::vector<CapturedLine> g_vecLines;
char g_cHandle;

void Keep(void* hLog, int iLevel, const char* pszText) {
  if (hLog != nullptr) {
    const std::lock_guard lock(g_mutexLines);
    g_vecLines.push_back({iLevel, pszText});
  }
}

}  // namespace

std::vector<CapturedLine> CapturedLog() {
  const std::lock_guard lock(g_mutexLines);
  return g_vecLines;
}

void ClearLog() {
  const std::lock_guard lock(g_mutexLines);
  g_vecLines.clear();
}

size_t CountLogLines(int iLevel, const std::string& strPart) {
  const auto vecLines = CapturedLog();
  return static_cast<size_t>(std::count_if(vecLines.begin(), vecLines.end(), [&](const CapturedLine& line) {
    return line.iLevel == iLevel && line.strText.find(strPart) != std::string::npos;
  }));
}

extern "C" {
void* LogInit(const char* /*pszChannel*/) {
  return &g_cHandle;
}
void LogUninit(void* /*hLog*/) {}
void LogPrintStr(void* hLog, int iLevel, const char* pszText) {
  Keep(hLog, iLevel, pszText);
}
void LogPrint(void* hLog, int iLevel, const char* pszFormat, ...) {
  char acText[1024];
  va_list args;
  va_start(args, pszFormat);
  vsnprintf(acText, sizeof(acText), pszFormat, args);
  va_end(args);
  Keep(hLog, iLevel, acText);
}
}
