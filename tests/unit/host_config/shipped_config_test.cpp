// The configuration file that is installed.
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "config_test_case.h"

namespace {

class ShippedConfigTest : public CConfigTestCase {
 protected:
  void SetUp() override {
    CConfigTestCase::SetUp();
    std::ifstream shipped(SHIPPED_CONFIG_PATH);
    std::ofstream uncommented(UncommentedPath());
    std::string strLine;
    while (std::getline(shipped, strLine)) {
      // A comment has a blank behind its semicolon, a key has none.
      const bool bKey = strLine.size() > 1 && strLine[0] == ';' && std::islower(static_cast<unsigned char>(strLine[1]));
      uncommented << strLine.substr(bKey ? 1 : 0) << '\n';
      m_uKeys += bKey ? 1 : 0;
    }
  }
  std::string UncommentedPath() const { return (m_Prefix / "uncommented.conf").string(); }

  // Every field in words.
  std::string LoadInWords(const std::string& strFile) const {
    HostConfig config;
    for (const ConfigProblem& problem : LoadHostConfig(strFile, m_Prefix.string(), config)) {
      ADD_FAILURE() << FormatProblem(strFile, problem);
    }
    std::ostringstream text;
    text << config.strDataDir << '\n'
         << config.strLogDir << '\n'
         << config.uLogLevels << ' ' << config.u64LogMaxFileSize << ' ' << config.uLogMaxFiles << '\n'
         << config.iStorageSync << '\n'
         << config.router.uCompletionThreads << ' ' << config.router.uReplyTimeoutMs << '\n'
         << config.ingress.strSocketPath << '\n';
    for (const uid_t uidUser : config.ingress.vecAllowedUsers) {
      text << "user " << uidUser << '\n';
    }
    text << config.ingress.uMaxFrame << ' ' << config.ingress.uWindow << ' ' << config.ingress.uStallTimeoutMs << ' '
         << config.ingress.uMaxConnections << ' ' << config.ingress.uThreads << '\n'
         << config.fileDriver.strPath << ' ' << config.fileDriver.bSync << '\n';
    const HttpDriverOptions& http = config.httpDriver;
    text << static_cast<int>(config.linkDriver) << ' ' << config.strAgentId << '\n'
         << http.strUrl << ' ' << http.strCaFile << ' ' << http.strClientCert << ' ' << http.strClientKey << ' '
         << http.strTokenFile << ' ' << http.strProxy << '\n'
         << http.uTimeoutMs << ' ' << http.uConnectTimeoutMs << ' ' << http.uLongestBackOffMs << ' ' << http.uBatchBytes
         << ' ' << http.uRequests << '\n';
    const NatsDriverOptions& nats = config.natsDriver;
    text << nats.strServers << ' ' << nats.strStream << ' ' << nats.strSubject << ' ' << nats.strCaFile << ' '
         << nats.strClientCert << ' ' << nats.strClientKey << ' ' << nats.strCredentialsFile << ' ' << nats.strTokenFile
         << ' ' << nats.strUser << ' ' << nats.strPasswordFile << '\n'
         << nats.uTimeoutMs << ' ' << nats.uConnectTimeoutMs << ' ' << nats.uLongestBackOffMs << ' ' << nats.uPending
         << '\n';
    for (const PluginSpec& plugin : config.vecPlugins) {
      text << plugin.strName << ' ' << plugin.strPath << ' ' << plugin.strGuid << '\n';
    }
    return text.str();
  }

  size_t m_uKeys = 0;
};

TEST_F(ShippedConfigTest, SetsNothingItself) {
  std::vector<ConfigProblem> vecProblems;
  EXPECT_TRUE(ReadConfigText(SHIPPED_CONFIG_PATH, vecProblems).vecEntries.empty());
  EXPECT_TRUE(vecProblems.empty());
}

TEST_F(ShippedConfigTest, HoldsEveryKeyThereIsOnceWithItsDefault) {
  std::vector<ConfigProblem> vecProblems;
  std::vector<std::string> vecShipped;
  for (const ConfigEntry& entry : ReadConfigText(UncommentedPath(), vecProblems).vecEntries) {
    const bool bPlugin = entry.strSection == "plugin logcache";
    vecShipped.push_back((bPlugin ? "plugin" : entry.strSection) + "/" + entry.strKey + " = " + entry.strValue);
  }
  std::vector<std::string> vecTable;
  for (const HostConfigKey& key : HostConfigKeys()) {
    vecTable.push_back(key.strSection + "/" + key.strKey + " = " + key.strDefault);
  }
  EXPECT_EQ(vecShipped, vecTable);
  EXPECT_EQ(m_uKeys, vecTable.size());
  EXPECT_TRUE(vecProblems.empty());
}

TEST_F(ShippedConfigTest, MeansTheSameWithEveryKeyUncommented) {
  EXPECT_EQ(LoadInWords(UncommentedPath()), LoadInWords(SHIPPED_CONFIG_PATH));
}

}  // namespace
