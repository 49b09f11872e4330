// The choice of the link's driver, and the keys of [http].
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "config_test_case.h"

namespace {

class HttpConfigTest : public CConfigTestCase {
 protected:
  HttpConfigTest() : CConfigTestCase("[plugin a]\n") {}
};

TEST_F(HttpConfigTest, TheFileIsTheDriverUnlessAnotherIsNamed) {
  ASSERT_EQ(Load(""), std::vector<std::string>{});
  EXPECT_EQ(m_Config.linkDriver, LinkDriver::File);
  EXPECT_EQ(m_Config.strAgentId, "");
  ASSERT_EQ(Load("[link]\ndriver=http\n[http]\nurl=https://host.example/records\n"), std::vector<std::string>{});
  EXPECT_EQ(m_Config.linkDriver, LinkDriver::Http);
  ExpectProblem("[link]\ndriver=carrier_pigeon\n", "F:3: driver: \"carrier_pigeon\" is not one of: file, http, nats");
}

TEST_F(HttpConfigTest, AUrlIsAllThatIsNeeded) {
  ASSERT_EQ(Load("[link]\ndriver=http\n[http]\nurl=https://host.example/records\n"), std::vector<std::string>{});
  const HttpDriverOptions& http = m_Config.httpDriver;
  EXPECT_EQ(http.strUrl, "https://host.example/records");
  EXPECT_EQ(http.strCaFile + http.strClientCert + http.strClientKey + http.strTokenFile + http.strProxy, "");
  EXPECT_EQ(http.uTimeoutMs, 30000U);
  EXPECT_EQ(http.uConnectTimeoutMs, 10000U);
  EXPECT_EQ(http.uLongestBackOffMs, 60000U);
  EXPECT_EQ(http.uBatchBytes, 1U << 20);
  EXPECT_EQ(http.uRequests, 2U);
  ExpectProblem("[link]\ndriver=http\n", "F:3: url: the driver http needs the url of a server");
  ExpectProblem("[link]\ndriver=http\n[http]\nurl=\n", "F:5: url: the driver http needs the url of a server");
}

TEST_F(HttpConfigTest, ReadsEveryKey) {
  ASSERT_EQ(Load("[link]\ndriver=http\nagent_id=0123ABCD-0000-4000-8000-00000000000F\n[http]\n"
                 "url=https://host.example/records\nca_file=etc/ca.pem\nclient_cert=/c.pem\nclient_key=/k.pem\n"
                 "token_file=etc/token\nproxy=http://proxy.example:3128\ntimeout_ms=100\nconnect_timeout_ms=200\n"
                 "retry_max_ms=300\nbatch_bytes=2K\nrequests=8\n"),
            std::vector<std::string>{});
  const HttpDriverOptions& http = m_Config.httpDriver;
  EXPECT_EQ(m_Config.strAgentId, "0123abcd-0000-4000-8000-00000000000f");
  EXPECT_EQ(http.strCaFile, Path("etc/ca.pem"));
  EXPECT_EQ(http.strClientCert, "/c.pem");
  EXPECT_EQ(http.strClientKey, "/k.pem");
  EXPECT_EQ(http.strTokenFile, Path("etc/token"));
  EXPECT_EQ(http.strProxy, "http://proxy.example:3128");
  EXPECT_EQ(http.uTimeoutMs, 100U);
  EXPECT_EQ(http.uConnectTimeoutMs, 200U);
  EXPECT_EQ(http.uLongestBackOffMs, 300U);
  EXPECT_EQ(http.uBatchBytes, 2048U);
  EXPECT_EQ(http.uRequests, 8U);
}

TEST_F(HttpConfigTest, ValuesThatMakeNoSenseAreProblems) {
  ExpectProblem("[http]\nurl=ftp://host.example\n", "F:3: url: the URL's scheme is ftp: only http and https are known");
  ExpectProblem("[http]\nproxy=somewhere\n",
                "F:3: proxy: the URL cannot be read: it begins with http:// or https:// and a host");
  EXPECT_EQ(Load("[http]\nproxy=environment\n"), std::vector<std::string>{});
  ExpectProblem("[http]\nrequests=9\n", "F:3: requests: \"9\" is not between 1 and 8");
  ExpectProblem("[http]\ntimeout_ms=99\n", "F:3: timeout_ms: \"99\" is not between 100 and 600000");
  ExpectProblem("[http]\nbatch_bytes=1\n", "F:3: batch_bytes: \"1\" is not between 1024 and 268435456");
  ExpectProblem("[link]\nagent_id=me\n", "F:3: agent_id: \"me\" is not a UUID");
  // A key that is wrong by itself is told once.
  ExpectProblem("[link]\ndriver=http\n[http]\nurl=ftp://host.example\n",
                "F:5: url: the URL's scheme is ftp: only http and https are known");
}

TEST_F(HttpConfigTest, NothingSecretGoesOverAConnectionThatOthersCanRead) {
  const std::string strPlain = "[link]\ndriver=http\n[http]\nurl=http://host.example/\n";
  ExpectProblem(strPlain + "token_file=t\n",
                "F:6: token_file: the url is not https: the token would be sent for everybody to read");
  ExpectProblem(strPlain + "ca_file=c\n", "F:6: ca_file: the url is not https");
  ExpectProblem(strPlain + "client_cert=c\n", "F:6: client_cert: the url is not https");
  EXPECT_EQ(Load("[link]\ndriver=http\n[http]\nurl=http://127.0.0.1:80/\ntoken_file=t\n"), std::vector<std::string>{});
  for (const char* pszProxy : {"http://proxy.example:3128", "environment"}) {
    EXPECT_EQ(Load(std::string("[link]\ndriver=http\n[http]\nurl=http://127.0.0.1:80/\ntoken_file=t\nproxy=") +
                   pszProxy + "\n")
                  .size(),
              1u);
  }
  EXPECT_EQ(Load("[link]\ndriver=http\n[http]\nurl=https://host.example/\ntoken_file=t\n"), std::vector<std::string>{});
}

TEST_F(HttpConfigTest, AKeyBelongsToACertificate) {
  const std::string strTls = "[link]\ndriver=http\n[http]\nurl=https://host.example/\n";
  ExpectProblem(strTls + "client_key=k\n", "F:6: client_key: there is no client_cert that it belongs to");
  EXPECT_EQ(Load(strTls + "client_cert=c\n"), std::vector<std::string>{});
}

// What another driver would need is no matter.
TEST_F(HttpConfigTest, OnlyTheChosenDriverIsChecked) {
  EXPECT_EQ(Load("[http]\nurl=http://host.example/\ntoken_file=t\n"), std::vector<std::string>{});
  std::filesystem::create_directories(m_Prefix / "data" / "records.jsonl");
  EXPECT_EQ(Load("[link]\ndriver=http\n[http]\nurl=https://host.example/\n"), std::vector<std::string>{});
}

}  // namespace
