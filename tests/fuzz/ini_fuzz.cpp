// Configuration files: the INI reader, the component's handler of its keys, and the host's configuration.
//
// The input is the file.
//
// Holds: a reader of our own, written from the header's description, predicts every key with its section, value and
// line, and the first refused line; the component ends with the last value of each key and leaves the others at their
// defaults; the host's problems name lines of the file and are single lines of text; a configuration without problems
// is within its bounds; its two readers agree on the section that a key stands in.
#include <fcntl.h>
#include <strings.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "host/config/host_config.h"
#include "monitor/log_cache_mon.h"
#include "platform/ini_reader.h"
#include "tests/fuzz/support/fuzz_check.h"

class CLogCacheMonPeer {
 public:
  explicit CLogCacheMonPeer(const CLogCacheMon& mon) : m_mon(mon) {}
  // The configured values as text, by key.
  std::map<std::string, std::string> Values() const {
    return {{"logcachepath", std::string(m_mon.m_strCfgLogCachePath.View())},
            {"logcachesize", std::to_string(m_mon.m_u64LogCacheSize)},
            {"logcachetotalsize", std::to_string(m_mon.m_u64LogCacheTotalSize)},
            {"diskfreesize", std::to_string(m_mon.m_u64DiskFreeSpace)},
            {"dataflowflag", std::to_string(m_mon.m_dwDataFlowFlag)},
            {"datacountlimit", std::to_string(m_mon.m_dwDataCountLimit)},
            {"localdatacountlimit", std::to_string(m_mon.m_dwLocalDataCountLimit)},
            {"datacoverflag", std::to_string(m_mon.m_dwDataCoverFlag)}};
  }

 private:
  const CLogCacheMon& m_mon;
};

namespace {

struct Key {
  std::string strSection;
  std::string strName;
  std::string strValue;
  int iLine;
  bool operator==(const Key&) const = default;
};

int KeepKey(void* pUser, const char* pszSection, const char* pszName, const char* pszValue, int iLine) {
  FUZZ_CHECK(pszSection != nullptr && pszName != nullptr && pszValue != nullptr);
  static_cast<std::vector<Key>*>(pUser)->push_back({pszSection, pszName, pszValue, iLine});
  return 1;
}

int CountLines(const std::string& strText) {
  const auto iBreaks = static_cast<int>(std::count(strText.begin(), strText.end(), '\n'));
  return iBreaks + (strText.empty() || strText.back() == '\n' ? 0 : 1);
}

bool IsSame(const std::string& strText, const char* pszOther) {
  return strcasecmp(strText.c_str(), pszOther) == 0;
}

// What the header's description makes of a file.
class COwnReader {
 public:
  explicit COwnReader(std::string_view svText) {
    for (int iLine = 1; !svText.empty(); ++iLine) {
      const size_t uEnd = std::min(svText.find('\n'), svText.size());
      if (!Read(svText.substr(0, uEnd), iLine) && m_iRefused == 0) {
        m_iRefused = iLine;
      }
      svText.remove_prefix(std::min(uEnd + 1, svText.size()));
    }
  }
  const std::vector<Key>& Keys() const { return m_vecKeys; }
  int FirstRefusedLine() const { return m_iRefused; }

 private:
  static constexpr std::string_view kSpace = " \t\v\f\r";
  static constexpr size_t kLongestLine = 8191;
  static constexpr size_t kLongestSection = 49;

  static std::string_view Trim(std::string_view svText) {
    svText.remove_prefix(std::min(svText.find_first_not_of(kSpace), svText.size()));
    return svText.substr(0, svText.find_last_not_of(kSpace) + 1);
  }
  static std::string_view WithoutComment(std::string_view svText) {
    for (size_t uAt = 1; uAt < svText.size(); ++uAt) {
      if (svText[uAt] == ';' && kSpace.find(svText[uAt - 1]) != std::string_view::npos) {
        return svText.substr(0, uAt);
      }
    }
    return svText;
  }

  bool Read(std::string_view svWhole, int iLine) {
    // A zero byte spoils its line, and a header's line also the section: it is looked for around them.
    std::string strLine(svWhole);
    const bool bZero = std::erase(strLine, '\0') != 0;
    std::string_view svLine = strLine;
    const size_t uIndent = std::min(svLine.find_first_not_of(kSpace), svLine.size());
    const bool bUnreadable = bZero || svLine.size() - uIndent > kLongestLine;
    svLine = Trim(svLine);
    if (iLine == 1 && svLine.starts_with("\xef\xbb\xbf")) {
      svLine = Trim(svLine.substr(3));
    }
    if (svLine.starts_with('[')) {
      const size_t uEnd = WithoutComment(svLine).find(']');
      m_bSectionKnown = !bUnreadable && uEnd != std::string_view::npos && uEnd - 1 <= kLongestSection;
      if (m_bSectionKnown) {
        m_strSection = svLine.substr(1, uEnd - 1);
      }
      return m_bSectionKnown;
    }
    if (bUnreadable || !m_bSectionKnown || svLine.empty() || svLine[0] == ';' || svLine[0] == '#') {
      return !bUnreadable;
    }
    const size_t uSeparator = WithoutComment(svLine).find_first_of("=:");
    if (uSeparator == std::string_view::npos) {
      return false;
    }
    m_vecKeys.push_back({m_strSection, std::string(Trim(svLine.substr(0, uSeparator))),
                         std::string(Trim(WithoutComment(svLine.substr(uSeparator + 1)))), iLine});
    return true;
  }

  std::vector<Key> m_vecKeys;
  int m_iRefused = 0;
  std::string m_strSection;
  bool m_bSectionKnown = true;
};

void CheckComponent(const std::string& strFile, const std::vector<Key>& vecKeys) {
  CLogCacheMon mon;
  std::map<std::string, std::string> mapExpected = CLogCacheMonPeer(mon).Values();
  for (const Key& key : vecKeys) {
    if (!IsSame(key.strSection, "logcache")) {
      continue;
    }
    for (auto& [strName, strValue] : mapExpected) {
      if (!IsSame(key.strName, strName.c_str())) {
        continue;
      }
      if (strName == "logcachepath") {
        strValue = key.strValue;
      } else if (strName.ends_with("size")) {
        strValue = std::to_string(strtoull(key.strValue.c_str(), nullptr, 0));
      } else {
        strValue = std::to_string(static_cast<uint32_t>(strtol(key.strValue.c_str(), nullptr, 10)));
      }
    }
  }
  FUZZ_CHECK(wrap_ini_parse(strFile.c_str(), CLogCacheMon::IniParserCallback, &mon) >= 0);
  FUZZ_CHECK(CLogCacheMonPeer(mon).Values() == mapExpected);
}

// The name of the last header above a line.
std::string SectionAt(const ConfigText& text, int iLine) {
  std::string strName;
  for (const ConfigSection& section : text.vecSections) {
    if (section.iLine >= iLine) {
      break;
    }
    strName = section.strName;
  }
  return strName;
}

void CheckHost(const std::string& strFile, std::string_view svText, const std::vector<Key>& vecKeys, int iLines) {
  ConfigText text;
  std::vector<ConfigProblem> vecForm;
  ScanLines(svText, text, vecForm);
  FUZZ_CHECK(text.iLines == iLines);
  for (const Key& key : vecKeys) {
    FUZZ_CHECK(SectionAt(text, key.iLine) == key.strSection);
  }

  HostConfig config;
  const std::vector<ConfigProblem> vecProblems = LoadHostConfig(strFile, "/nowhere", config);
  FUZZ_CHECK(vecProblems.size() >= vecForm.size());
  int iLast = 0;
  for (const ConfigProblem& problem : vecProblems) {
    FUZZ_CHECK(problem.iLine >= iLast && problem.iLine <= std::max(iLines, 1));
    iLast = problem.iLine;
    FUZZ_CHECK(!problem.strText.empty() && problem.strText.find('\n') == std::string::npos);
    FUZZ_CHECK(!FormatProblem(strFile, problem).empty());
  }
  if (!vecProblems.empty()) {
    return;
  }
  FUZZ_CHECK(!config.vecPlugins.empty());
  FUZZ_CHECK(config.strDataDir.starts_with('/') && config.strLogDir.starts_with('/'));
  FUZZ_CHECK(config.uLogLevels != 0 && (config.uLogLevels & ~0x7eU) == 0);
  FUZZ_CHECK(config.u64LogMaxFileSize >= 4096 && config.u64LogMaxFileSize <= 1U << 30);
  FUZZ_CHECK(config.uLogMaxFiles >= 2 && config.uLogMaxFiles <= 1000);
  FUZZ_CHECK(config.ingress.uMaxFrame >= 4096 && config.ingress.uMaxFrame <= 1U << 30);
  FUZZ_CHECK(config.ingress.uWindow >= 1 && config.ingress.uWindow <= 1048576);
  FUZZ_CHECK(config.ingress.uThreads >= 1 && config.ingress.uThreads <= 256);
  FUZZ_CHECK(config.ingress.strSocketPath.size() <= 107);
  FUZZ_CHECK(config.iStorageSync == 1 || config.iStorageSync == 2);
}

// The input as a file that no directory has.
class CMemoryFile {
 public:
  CMemoryFile(const uint8_t* pData, size_t uSize) : m_iFile(memfd_create("config", MFD_CLOEXEC)) {
    FUZZ_CHECK(m_iFile >= 0);
    FUZZ_CHECK(write(m_iFile, pData, uSize) == static_cast<ssize_t>(uSize));
  }
  ~CMemoryFile() { close(m_iFile); }
  CMemoryFile(const CMemoryFile&) = delete;
  CMemoryFile& operator=(const CMemoryFile&) = delete;
  std::string Path() const { return "/proc/self/fd/" + std::to_string(m_iFile); }

 private:
  const int m_iFile;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  const CMemoryFile file(pData, uSize);
  const std::string strText(reinterpret_cast<const char*>(pData), uSize);
  const COwnReader own(strText);
  std::vector<Key> vecKeys;
  FUZZ_CHECK(wrap_ini_parse(file.Path().c_str(), KeepKey, &vecKeys) == own.FirstRefusedLine());
  FUZZ_CHECK(vecKeys == own.Keys());
  CheckComponent(file.Path(), vecKeys);
  CheckHost(file.Path(), strText, vecKeys, CountLines(strText));
  return 0;
}
