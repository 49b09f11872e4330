// Records for the tests of the link.
#ifndef QMLOGCACHE_TESTS_UNIT_HOST_LINK_LINK_TEST_SUPPORT_H_
#define QMLOGCACHE_TESTS_UNIT_HOST_LINK_LINK_TEST_SUPPORT_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "host/link/link_driver.h"

inline constexpr char kTestGuid[] = "5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358";
// How long a test waits for what must come, before it fails instead of hanging.
inline constexpr std::chrono::seconds kHangGuard{60};

std::string MakeText(uint64_t u64DataId, const std::string& strMessage, const std::string& strProduct = "",
                     const std::string& strCombo = "", int32_t iPriv = 1, int32_t iMsgType = 1);
std::shared_ptr<LinkRecord> MakeRecord(uint64_t u64DataId, const std::string& strMessage,
                                       const std::string& strProduct = "", const std::string& strCombo = "",
                                       int32_t iPriv = 1, int32_t iMsgType = 1);

// A directory of its own, removed with all it holds.
class CTestDirectory {
 public:
  CTestDirectory();
  ~CTestDirectory();
  CTestDirectory(const CTestDirectory&) = delete;
  CTestDirectory& operator=(const CTestDirectory&) = delete;
  std::string Path(const std::string& strName) const { return m_strPath + "/" + strName; }

 private:
  std::string m_strPath;
};

std::string ReadWhole(const std::string& strPath);
void WriteWhole(const std::string& strPath, const std::string& strBytes);

#endif  // QMLOGCACHE_TESTS_UNIT_HOST_LINK_LINK_TEST_SUPPORT_H_
