// The keys of [nats].
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "config_test_case.h"

namespace {

class NatsConfigTest : public CConfigTestCase {
 protected:
  // Of the keys of [nats], the first of them in line 5.
  NatsConfigTest() : CConfigTestCase("[plugin a]\n[link]\ndriver=nats\n[nats]\n") {}
};

TEST_F(NatsConfigTest, AServerIsAllThatIsNeeded) {
  ASSERT_EQ(Load("servers=nats://host.example:4222\n"), Problems{});
  const NatsDriverOptions& nats = m_Config.natsDriver;
  EXPECT_EQ(m_Config.linkDriver, LinkDriver::Nats);
  EXPECT_EQ(nats.strServers, "nats://host.example:4222");
  EXPECT_EQ(nats.strStream, "qmlogcache");
  EXPECT_EQ(nats.strSubject, "qmlogcache");
  EXPECT_EQ(nats.strCaFile + nats.strClientCert + nats.strClientKey, "");
  EXPECT_EQ(nats.strCredentialsFile + nats.strTokenFile + nats.strUser + nats.strPasswordFile, "");
  EXPECT_EQ(nats.uTimeoutMs, 10000U);
  EXPECT_EQ(nats.uConnectTimeoutMs, 10000U);
  EXPECT_EQ(nats.uLongestBackOffMs, 60000U);
  EXPECT_EQ(nats.uPending, 256U);
  EXPECT_EQ(Load(""), Problems{"F:4: servers: the driver nats needs the url of a server"});
}

TEST_F(NatsConfigTest, ReadsEveryKey) {
  ASSERT_EQ(Load("servers=tls://a.example, tls://b.example:1\nstream=LOGS\nsubject=fleet.berlin\nca_file=etc/ca.pem\n"
                 "client_cert=/c.pem\nclient_key=/k.pem\nuser=agent\npassword_file=etc/password\ntimeout_ms=100\n"
                 "connect_timeout_ms=200\nretry_max_ms=300\npending=1\n"),
            Problems{});
  const NatsDriverOptions& nats = m_Config.natsDriver;
  EXPECT_EQ(nats.strServers, "tls://a.example, tls://b.example:1");
  EXPECT_EQ(nats.strStream, "LOGS");
  EXPECT_EQ(nats.strSubject, "fleet.berlin");
  EXPECT_EQ(nats.strCaFile, Path("etc/ca.pem"));
  EXPECT_EQ(nats.strClientCert, "/c.pem");
  EXPECT_EQ(nats.strClientKey, "/k.pem");
  EXPECT_EQ(nats.strUser, "agent");
  EXPECT_EQ(nats.strPasswordFile, Path("etc/password"));
  EXPECT_EQ(nats.uTimeoutMs, 100U);
  EXPECT_EQ(nats.uConnectTimeoutMs, 200U);
  EXPECT_EQ(nats.uLongestBackOffMs, 300U);
  EXPECT_EQ(nats.uPending, 1U);
  ASSERT_EQ(Load("servers=tls://a\ncredentials_file=etc/agent.creds\n"), Problems{});
  EXPECT_EQ(m_Config.natsDriver.strCredentialsFile, Path("etc/agent.creds"));
  ASSERT_EQ(Load("servers=tls://a\ntoken_file=etc/token\n"), Problems{});
  EXPECT_EQ(m_Config.natsDriver.strTokenFile, Path("etc/token"));
}

TEST_F(NatsConfigTest, RefusesValuesThatAreNone) {
  EXPECT_EQ(Load("servers=http://a\n"),
            Problems{"F:5: servers: a server's scheme is http: only nats and tls are known"});
  EXPECT_EQ(Load("servers=a\nstream=a.b\n"),
            Problems{"F:6: stream: \"a.b\" is no stream's name: 1 to 128 letters, digits, - and _"});
  EXPECT_EQ(Load("servers=a\nsubject=a.>\n"),
            Problems{"F:6: subject: \"a.>\" is no subject prefix: letters, digits, - and _, in tokens with a dot in "
                     "between"});
  EXPECT_EQ(Load("servers=tls://a\nuser=a\"b\npassword_file=p\n"),
            Problems{"F:6: user: at most 256 visible characters, without quotation marks and backslashes"});
  EXPECT_EQ(Load("servers=a\npending=0\n").size(), 1U);
  EXPECT_EQ(Load("servers=a\ntimeout_ms=99\n").size(), 1U);
}

TEST_F(NatsConfigTest, NothingSecretGoesOverAConnectionThatOthersCanRead) {
  const std::string strOpen = "servers=nats://127.0.0.1, nats://host.example\n";
  const std::string strWrong = ": the servers are not tls://: it would be sent for everybody to read";
  EXPECT_EQ(Load(strOpen + "token_file=t\n"), Problems{"F:6: token_file" + strWrong});
  EXPECT_EQ(Load(strOpen + "credentials_file=t\n"), Problems{"F:6: credentials_file" + strWrong});
  EXPECT_EQ(Load(strOpen + "user=u\npassword_file=t\n"), Problems{"F:7: password_file" + strWrong});
  EXPECT_EQ(Load(strOpen + "ca_file=c\n"), Problems{"F:6: ca_file: the servers are not tls://"});
  EXPECT_EQ(Load(strOpen + "client_cert=c\n"), Problems{"F:6: client_cert: the servers are not tls://"});
  EXPECT_EQ(Load("servers=nats://127.0.0.1, localhost\ntoken_file=t\n"), Problems{});
}

TEST_F(NatsConfigTest, CredentialsAreOfOneKindAndWhole) {
  EXPECT_EQ(Load("servers=tls://a\ncredentials_file=c\ntoken_file=t\n"),
            Problems{"F:7: token_file: there is a credentials_file already, and a server asks for one"});
  EXPECT_EQ(Load("servers=tls://a\nuser=u\n"), Problems{"F:6: user: user and password_file belong together"});
  EXPECT_EQ(Load("servers=tls://a\npassword_file=p\n"),
            Problems{"F:6: password_file: user and password_file belong together"});
  EXPECT_EQ(Load("servers=tls://a\nclient_key=k\n"),
            Problems{"F:6: client_key: there is no client_cert that it belongs to"});
}

}  // namespace
