#include "host/config/config_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/ini_reader.h"

namespace {

constexpr size_t kLongestFile = 1U << 20;
// What the INI reader takes.
constexpr size_t kLongestLine = 8190;
constexpr size_t kLongestSection = 49;
constexpr std::string_view kSpace = " \t\r\v\f";

bool ReadWhole(const std::string& strFile, std::string& strText, std::string& strWhy) {
  // Not blocking, so that a FIFO in the file's place cannot hold up the start.
  const int iFile = open(strFile.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (iFile < 0) {
    strWhy = std::string("cannot be opened: ") + std::strerror(errno);
    return false;
  }
  struct stat info {};
  if (fstat(iFile, &info) != 0 || !S_ISREG(info.st_mode)) {
    strWhy = "is not a regular file";
  } else {
    strText.resize(kLongestFile + 1);
    size_t uLength = 0;
    ssize_t iRead = 0;
    while (uLength < strText.size() &&
           (iRead = TEMP_FAILURE_RETRY(read(iFile, &strText[uLength], strText.size() - uLength))) > 0) {
      uLength += static_cast<size_t>(iRead);
    }
    strText.resize(uLength);
    if (iRead < 0) {
      strWhy = std::string("cannot be read: ") + std::strerror(errno);
    } else if (uLength > kLongestFile) {
      strWhy = "is longer than 1 MiB";
    }
  }
  close(iFile);
  return strWhy.empty();
}

// White space and ; begin a comment, also before the ']' of a header.
bool HoldsComment(std::string_view svText) {
  for (size_t uAt = svText.find(';'); uAt != std::string_view::npos; uAt = svText.find(';', uAt + 1)) {
    if (uAt > 0 && kSpace.find(svText[uAt - 1]) != std::string_view::npos) {
      return true;
    }
  }
  return false;
}

// Empty when the line is well formed.
std::string ScanLine(std::string_view svLine, int iLine, ConfigText& text) {
  if (svLine.size() > kLongestLine) {
    return "line longer than " + std::to_string(kLongestLine) + " bytes";
  }
  if (svLine.find('\0') != std::string_view::npos) {
    return "line with a zero byte";
  }
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  svLine.remove_prefix(std::min(svLine.find_first_not_of(kSpace), svLine.size()));
  if (iLine == 1 && svLine.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
    svLine.remove_prefix(kByteOrderMark.size());
    svLine.remove_prefix(std::min(svLine.find_first_not_of(kSpace), svLine.size()));
  }
  if (svLine.empty() || svLine[0] == ';' || svLine[0] == '#') {
    return {};
  }
  if (svLine[0] == '[') {
    const size_t uEnd = svLine.find(']');
    if (uEnd == std::string_view::npos || HoldsComment(svLine.substr(0, uEnd))) {
      return "section header without ']'; the lines under it are not read";
    }
    if (uEnd - 1 > kLongestSection) {
      return "section name longer than " + std::to_string(kLongestSection) + " bytes; the lines under it are not read";
    }
    text.vecSections.push_back({std::string(svLine.substr(1, uEnd - 1)), iLine});
    return {};
  }
  if (std::min(svLine.find_first_of("=:"), svLine.find(" ;")) == std::string_view::npos ||
      svLine.find(" ;") < svLine.find_first_of("=:")) {
    return "neither a section header, a key with a value, nor a comment";
  }
  return {};
}

int TakeKey(void* pUser, const char* pszSection, const char* pszName, const char* pszValue, int iLine) {
  static_cast<std::vector<ConfigEntry>*>(pUser)->push_back({pszSection, pszName, pszValue, iLine});
  return 1;
}

}  // namespace

void ScanLines(std::string_view svText, ConfigText& text, std::vector<ConfigProblem>& vecProblems) {
  while (!svText.empty()) {
    const size_t uEnd = std::min(svText.find('\n'), svText.size());
    ++text.iLines;
    std::string strWrong = ScanLine(svText.substr(0, uEnd), text.iLines, text);
    if (!strWrong.empty()) {
      vecProblems.push_back({text.iLines, std::move(strWrong)});
    }
    svText.remove_prefix(std::min(uEnd + 1, svText.size()));
  }
}

ConfigText ReadConfigText(const std::string& strFile, std::vector<ConfigProblem>& vecProblems) {
  ConfigText text;
  std::string strText;
  std::string strWhy;
  if (!ReadWhole(strFile, strText, strWhy)) {
    vecProblems.push_back({0, strWhy});
    return text;
  }
  std::vector<ConfigProblem> vecFound;
  ScanLines(strText, text, vecFound);
  const int iResult = wrap_ini_parse(strFile.c_str(), TakeKey, &text.vecEntries);
  if (iResult < 0) {
    vecFound.push_back({0, "cannot be read"});
  }
  const bool bKnown = std::any_of(vecFound.begin(), vecFound.end(),
                                  [iResult](const ConfigProblem& problem) { return problem.iLine == iResult; });
  if (iResult > 0 && !bKnown) {
    vecFound.push_back({iResult, "not understood"});
  }
  vecProblems.insert(vecProblems.end(), vecFound.begin(), vecFound.end());
  return text;
}
