// A directory of a test's own, removed with everything in it.
#ifndef QMLOGCACHE_PLATFORM_TEMPORARY_DIRECTORY_H_
#define QMLOGCACHE_PLATFORM_TEMPORARY_DIRECTORY_H_

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

class CTemporaryDirectory {
 public:
  CTemporaryDirectory() : m_path((std::filesystem::temp_directory_path() / "qmplatform-XXXXXX").string()) {
    if (mkdtemp(m_path.data()) == nullptr) {
      throw std::runtime_error("mkdtemp");
    }
  }
  ~CTemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  CTemporaryDirectory(const CTemporaryDirectory&) = delete;
  CTemporaryDirectory& operator=(const CTemporaryDirectory&) = delete;

  const std::string& Path() const { return m_path; }
  std::string Path(const std::string& strName) const { return m_path + "/" + strName; }

  std::string Write(const std::string& strName, const std::string& strBytes) const {
    std::ofstream(Path(strName), std::ios::binary) << strBytes;
    return Path(strName);
  }

 private:
  std::string m_path;
};

#endif  // QMLOGCACHE_PLATFORM_TEMPORARY_DIRECTORY_H_
