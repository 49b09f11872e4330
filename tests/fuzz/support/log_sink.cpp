// Takes the place of the logging library. Every line is formatted, so that the sanitizers see what the arguments are,
// and escaped as it would be for the file; a line that could pass for two, or that cannot be read back, is a fault.
// Nothing is written.
#include <cstdarg>
#include <cstdio>
#include <string>
#include <string_view>

#include "platform/api.h"
#include "platform/log.h"
#include "platform/log_escape.h"
#include "tests/fuzz/support/fuzz_check.h"

namespace {

char g_channel;  // what every handle points to

void CheckLine(std::string_view svText) {
  std::string strLine;
  AppendEscapedLogText(svText, &strLine);
  for (const char c : strLine) {
    FUZZ_CHECK(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f);
  }
  std::string strBack;
  FUZZ_CHECK(UnescapeLogText(strLine, &strBack));
  FUZZ_CHECK(strBack == svText);
}

}  // namespace

extern "C" {

QM_PLATFORM_API void* LogInit(const char* /*pszChannel*/) {
  return &g_channel;
}

QM_PLATFORM_API void LogPrint(void* hLog, int /*iLevel*/, const char* pszFormat, ...) {
  if (hLog == nullptr) {
    return;
  }
  va_list arguments;
  va_start(arguments, pszFormat);
  char* pszText = nullptr;
  const int iLength = vasprintf(&pszText, pszFormat, arguments);
  va_end(arguments);
  FUZZ_CHECK(iLength >= 0);
  CheckLine({pszText, static_cast<size_t>(iLength)});
  free(pszText);
}

QM_PLATFORM_API void LogPrintStr(void* hLog, int /*iLevel*/, const char* pszText) {
  if (hLog != nullptr) {
    CheckLine(pszText);
  }
}

QM_PLATFORM_API void LogUninit(void* /*hLog*/) {}

}  // extern "C"
