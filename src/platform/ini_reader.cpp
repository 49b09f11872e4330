#include "platform/ini_reader.h"

#include <cxxabi.h>
#include <ini.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <memory>
#include <string_view>

#include "platform/api.h"

namespace {

// inih cuts a line that does not fit its buffer in two and reads the second half as a line of its own. Its limit is 200
// bytes, which a path exceeds easily, and is one setting for the process: raised once, before any thread can be
// parsing.
constexpr int kMaxLine = 8192;
[[maybe_unused]] const bool kLineLimitRaised = [] {
  ini_max_line = std::max(ini_max_line, kMaxLine);
  return true;
}();

// inih keeps no more of a section's name.
constexpr size_t kMaxSectionName = 49;

// Where the line's section header begins, null when it holds none. inih passes over a byte order mark.
const char* HeaderOf(const char* pszLine, bool bFirstLine) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (bFirstLine && std::string_view(pszLine).starts_with(kByteOrderMark)) {
    pszLine += kByteOrderMark.size();
    while (std::isspace(static_cast<unsigned char>(*pszLine)) != 0) {
      ++pszLine;
    }
  }
  return *pszLine == '[' ? pszLine : nullptr;
}

// The header's closing bracket; null when there is none, or only behind the beginning of a comment, where inih does not
// look for it.
const char* EndOfHeader(const char* pHeader) {
  for (const char* pAt = pHeader + 1; *pAt != '\0'; ++pAt) {
    if (*pAt == ']') {
      return pAt;
    }
    if (*pAt == ';' && std::isspace(static_cast<unsigned char>(pAt[-1])) != 0) {
      return nullptr;
    }
  }
  return nullptr;
}

// Feeds inih one line a call, so that its line count is ours, and keeps from it what it would misread.
class CLineSource {
 public:
  CLineSource(FILE* pFile, int (*pfnHandler)(void*, const char*, const char*, const char*, int), void* pUser)
      : m_pFile(pFile), m_pfnHandler(pfnHandler), m_pUser(pUser) {}

  static char* ReadLine(char* pszLine, int iSize, void* pSelf) {
    return static_cast<CLineSource*>(pSelf)->Read(pszLine, static_cast<size_t>(iSize));
  }

  static int OnKey(void* pSelf, const char* pszSection, const char* pszName, const char* pszValue) {
    const auto* pSource = static_cast<CLineSource*>(pSelf);
    try {
      return pSource->m_pfnHandler(pSource->m_pUser, pszSection, pszName, pszValue, pSource->m_iLine);
    } catch (abi::__forced_unwind&) {
      throw;  // the thread is being cancelled
    } catch (...) {
      return 0;
    }
  }

  int FirstRefusedLine() const { return m_iFirstRefused; }

 private:
  // The next line without its leading white space: inih would take an indented line for more of the value before it.
  // A line that is refused reaches inih empty. Null at the end of the file.
  char* Read(char* pszLine, size_t uSize) {
    size_t uLength = 0;
    bool bRefused = false;
    int iByte = getc(m_pFile);
    if (iByte == EOF) {
      return nullptr;
    }
    ++m_iLine;
    for (; iByte != EOF && iByte != '\n'; iByte = getc(m_pFile)) {
      if (uLength == 0 && std::isspace(iByte) != 0) {
        continue;
      }
      if (iByte == '\0' || uLength + 1 >= uSize) {
        bRefused = true;
      } else {
        pszLine[uLength++] = static_cast<char>(iByte);
      }
    }
    pszLine[uLength] = '\0';
    if (const char* pHeader = HeaderOf(pszLine, m_iLine == 1); pHeader != nullptr) {
      // The keys under a header that cannot be read belong to no section, least of all to the one before it.
      const char* pEnd = EndOfHeader(pHeader);
      bRefused = bRefused || pEnd == nullptr || static_cast<size_t>(pEnd - pHeader - 1) > kMaxSectionName;
      m_bInUnknownSection = bRefused;
    }
    if (bRefused && m_iFirstRefused == 0) {
      m_iFirstRefused = m_iLine;
    }
    if (bRefused || m_bInUnknownSection) {
      pszLine[0] = '\0';
    }
    return pszLine;
  }

  FILE* const m_pFile;
  int (*const m_pfnHandler)(void*, const char*, const char*, const char*, int);
  void* const m_pUser;
  int m_iLine = 0;
  int m_iFirstRefused = 0;
  bool m_bInUnknownSection = false;
};

struct FileCloser {
  void operator()(FILE* pFile) const { fclose(pFile); }
};

}  // namespace

extern "C" QM_PLATFORM_API int wrap_ini_parse(const char* pszFile,
                                              int (*pfnHandler)(void* pUser, const char* pszSection,
                                                                const char* pszName, const char* pszValue, int iLine),
                                              void* pUser) {
  if (pszFile == nullptr || pfnHandler == nullptr) {
    return -1;
  }
  const std::unique_ptr<FILE, FileCloser> pFile(fopen(pszFile, "re"));
  if (pFile == nullptr) {
    return -1;
  }
  CLineSource source(pFile.get(), pfnHandler, pUser);
  const int iResult = ini_parse_stream(CLineSource::ReadLine, &source, CLineSource::OnKey, &source);
  if (iResult < 0 || ferror(pFile.get()) != 0) {
    return -1;
  }
  const int iRefused = source.FirstRefusedLine();
  return iResult == 0 || iRefused == 0 ? std::max(iResult, iRefused) : std::min(iResult, iRefused);
}
