#include "tools/qmcache/private_copy.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

namespace {

std::string ContentsOf(const std::string& strFile) {
  std::ifstream file(strFile, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class PrivateCopyTest : public testing::Test {
 protected:
  PrivateCopyTest() {
    m_strDirectory = testing::TempDir() + "/private-copy-XXXXXX";
    if (mkdtemp(m_strDirectory.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), m_strDirectory);
    }
    m_strFile = m_strDirectory + "/a.db";
    std::ofstream(m_strFile) << "contents";
  }
  ~PrivateCopyTest() override { std::filesystem::remove_all(m_strDirectory); }
  // The file's last change, as seconds from now.
  void SetAge(time_t iSeconds) const {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    now.tv_sec += iSeconds;
    const std::array<timespec, 2> times = {now, now};
    ASSERT_EQ(utimensat(AT_FDCWD, m_strFile.c_str(), times.data(), 0), 0);
  }
  bool Take(bool& bChanged) {
    uint64_t u64Lost = 0;
    std::string strError;
    return m_copy.TakeWhatIsReadable(m_strFile, u64Lost, bChanged, strError);
  }

  std::string m_strDirectory;
  std::string m_strFile;
  CPrivateCopy m_copy;
};

TEST_F(PrivateCopyTest, AFileThatIsLeftAloneIsCopied) {
  for (const time_t iAge : {-3600, -5, 3600}) {
    bool bChanged = true;
    SetAge(iAge);
    ASSERT_TRUE(Take(bChanged));
    EXPECT_FALSE(bChanged) << iAge;
    EXPECT_EQ(ContentsOf(m_copy.Path()), "contents");
  }
}

TEST_F(PrivateCopyTest, AFileThatMayStillChangeUnseenIsCopiedAndTold) {
  bool bChanged = false;
  SetAge(9);  // for as long as it is tried no change would show
  ASSERT_TRUE(Take(bChanged));
  EXPECT_TRUE(bChanged);
  EXPECT_EQ(ContentsOf(m_copy.Path()), "contents");
}

}  // namespace
