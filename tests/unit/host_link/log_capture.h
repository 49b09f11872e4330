// Stands in for the logging library in this test program and keeps the lines.
#ifndef QMLOGCACHE_TESTS_UNIT_HOST_LINK_LOG_CAPTURE_H_
#define QMLOGCACHE_TESTS_UNIT_HOST_LINK_LOG_CAPTURE_H_

#include <string>
#include <vector>

struct CapturedLine {
  int iLevel;
  std::string strText;
};

// Lines since the last ClearLog, over all channels.
std::vector<CapturedLine> CapturedLog();
void ClearLog();
// How many lines of that level hold the text.
size_t CountLogLines(int iLevel, const std::string& strPart);

#endif  // QMLOGCACHE_TESTS_UNIT_HOST_LINK_LOG_CAPTURE_H_
