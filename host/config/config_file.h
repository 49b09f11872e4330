// The text of a configuration file: its sections and keys with their lines, and every line that is neither.
#ifndef QMLOGCACHE_HOST_CONFIG_CONFIG_FILE_H_
#define QMLOGCACHE_HOST_CONFIG_CONFIG_FILE_H_

#include <string>
#include <string_view>
#include <vector>

// Something wrong. iLine counts from 1; 0 when it concerns no line, such as a file that cannot be read.
struct ConfigProblem {
  int iLine = 0;
  std::string strText;
};

struct ConfigEntry {
  std::string strSection;
  std::string strKey;
  std::string strValue;
  int iLine = 0;
};

struct ConfigSection {
  std::string strName;
  int iLine = 0;
};

struct ConfigText {
  std::vector<ConfigSection> vecSections;  // every header, also those without keys
  std::vector<ConfigEntry> vecEntries;
  int iLines = 0;
};

// Reads the file. Appends what is wrong with its form to vecProblems; what could be read is returned all the same.
ConfigText ReadConfigText(const std::string& strFile, std::vector<ConfigProblem>& vecProblems);

// Looks at the form of the lines alone: the INI reader tells of no header without keys and of the first bad line only.
void ScanLines(std::string_view svText, ConfigText& text, std::vector<ConfigProblem>& vecProblems);

#endif  // QMLOGCACHE_HOST_CONFIG_CONFIG_FILE_H_
