// The final counts in a file, for programs: one "KEY VALUE" a line.
#ifndef QMLOGCACHE_TOOLS_QMSEND_SUMMARY_FILE_H_
#define QMLOGCACHE_TOOLS_QMSEND_SUMMARY_FILE_H_

#include <cstdint>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

class CSummaryFile {
 public:
  using Counts = std::vector<std::pair<const char*, uint64_t>>;

  // Makes the file, or empties one that is there. False with a reason.
  [[nodiscard]] bool Open(const std::string& strPath, std::string& strError);
  // Writes and closes. True when no file was opened.
  [[nodiscard]] bool Write(const Counts& counts, std::string& strError);

 private:
  std::string m_strPath;
  std::ofstream m_file;
};

#endif  // QMLOGCACHE_TOOLS_QMSEND_SUMMARY_FILE_H_
