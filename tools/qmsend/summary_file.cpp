#include "tools/qmsend/summary_file.h"

#include <cerrno>
#include <system_error>

bool CSummaryFile::Open(const std::string& strPath, std::string& strError) {
  m_strPath = strPath;
  m_file.open(strPath, std::ios::binary | std::ios::trunc);
  if (!m_file) {
    strError = strPath + ": cannot write the summary: " + std::generic_category().message(errno);
    return false;
  }
  return true;
}

bool CSummaryFile::Write(const Counts& counts, std::string& strError) {
  if (!m_file.is_open()) {
    return true;
  }
  for (const auto& [pszKey, u64Count] : counts) {
    m_file << pszKey << ' ' << u64Count << '\n';
  }
  m_file.close();
  if (!m_file) {
    strError = m_strPath + ": cannot write the summary: " + std::generic_category().message(errno);
    return false;
  }
  return true;
}
