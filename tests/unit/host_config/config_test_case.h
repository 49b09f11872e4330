// What the tests of the configuration share: an installation with an empty library, and a file to load.
#ifndef QMLOGCACHE_TESTS_UNIT_HOST_CONFIG_CONFIG_TEST_CASE_H_
#define QMLOGCACHE_TESTS_UNIT_HOST_CONFIG_CONFIG_TEST_CASE_H_

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "host/config/host_config.h"

using Problems = std::vector<std::string>;

class CConfigTestCase : public ::testing::Test {
 protected:
  // strBefore: lines that stand before those that a test loads.
  explicit CConfigTestCase(std::string strBefore = "") : m_strBefore(std::move(strBefore)) {}
  void SetUp() override {
    std::string strPattern = (std::filesystem::temp_directory_path() / "config_test.XXXXXX").string();
    ASSERT_NE(mkdtemp(strPattern.data()), nullptr);
    m_Prefix = strPattern;
    std::filesystem::create_directory(m_Prefix / "lib");
    std::ofstream(m_Prefix / "lib" / "libqmlogcache.so") << "library";
  }
  void TearDown() override { std::filesystem::remove_all(m_Prefix); }

  // What is wrong with them, each as it is told of a file F.
  Problems Load(const std::string& strText) {
    const std::filesystem::path file = m_Prefix / "qmhost.conf";
    std::ofstream(file, std::ios::binary) << m_strBefore << strText;
    Problems vecTexts;
    for (const ConfigProblem& problem : LoadHostConfig(file.string(), m_Prefix.string(), m_Config)) {
      vecTexts.push_back(FormatProblem("F", problem));
    }
    return vecTexts;
  }
  // Expects one problem.
  void ExpectProblem(const std::string& strText, const std::string& strProblem) {
    EXPECT_EQ(Load(strText), Problems{strProblem});
  }
  std::string Path(const std::string& strRelative) { return (m_Prefix / strRelative).string(); }

  const std::string m_strBefore;
  std::filesystem::path m_Prefix;
  HostConfig m_Config;
};

#endif  // QMLOGCACHE_TESTS_UNIT_HOST_CONFIG_CONFIG_TEST_CASE_H_
