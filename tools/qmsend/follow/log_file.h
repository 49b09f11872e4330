// One open file of a log, known by its number and its first bytes whatever its name has become.
#ifndef QMLOGCACHE_TOOLS_QMSEND_FOLLOW_LOG_FILE_H_
#define QMLOGCACHE_TOOLS_QMSEND_FOLLOW_LOG_FILE_H_

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>

#include "tools/qmsend/follow/position_file.h"

class CLogFile {
 public:
  // Null with a reason when there is no regular file that can be read; then errno is ENOENT when there is none at all.
  static std::shared_ptr<CLogFile> Open(const std::string& strPath, std::string& strError);
  ~CLogFile();
  CLogFile(const CLogFile&) = delete;
  CLogFile& operator=(const CLogFile&) = delete;

  int Descriptor() const { return m_iFile; }
  // Under which it was opened.
  const std::string& Path() const { return m_strPath; }
  uint64_t Device() const { return m_u64Device; }
  uint64_t Inode() const { return m_u64Inode; }
  bool IsAt(const struct stat& info) const { return info.st_dev == m_u64Device && info.st_ino == m_u64Inode; }
  // Its first bytes as far as they are known: up to 256.
  const std::string& Head() const { return m_strHead; }
  // When it was last written to.
  timespec Modified() const;

  // Whether it still holds what was read: u64Read bytes, and strBefore right before u64Line. False once it was
  // truncated, or overwritten from its beginning, also with the same first bytes. Learns more of its first bytes.
  [[nodiscard]] bool IsIntact(uint64_t u64Read, uint64_t u64Line, const std::string& strBefore);
  // Whether it holds what the position tells: the first bytes, and those before the offset.
  [[nodiscard]] bool Holds(const FollowPosition& position) const;

 private:
  CLogFile(int iFile, std::string strPath, const struct stat& info);
  std::string ReadAt(uint64_t u64Offset, size_t uLength) const;

  const int m_iFile;
  const std::string m_strPath;
  const uint64_t m_u64Device;
  const uint64_t m_u64Inode;
  std::string m_strHead;
};

#endif  // QMLOGCACHE_TOOLS_QMSEND_FOLLOW_LOG_FILE_H_
