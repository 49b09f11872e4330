// Subjects, streams and servers.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "host/link/nats/nats_names.h"
#include "host/link/nats/nats_servers.h"

namespace {

constexpr char kAgent[] = "0d7c0a52-6a0e-4c29-9d5b-3f1f8a7b7c11";

std::string Subject(int32_t iMsgType, int32_t iPriv, const std::string& strPrefix = "qmlogcache") {
  TaggedText tags;
  tags.iMsgType = iMsgType;
  tags.iPriv = iPriv;
  std::string strSubject;
  AppendSubject(strSubject, strPrefix, kAgent, tags);
  return strSubject;
}

TEST(SubjectTest, SaysAgentKindAndPriority) {
  EXPECT_EQ(Subject(1, 2), "qmlogcache.0d7c0a52-6a0e-4c29-9d5b-3f1f8a7b7c11.edr.high");
  EXPECT_EQ(Subject(2, 0, "fleet.berlin"), "fleet.berlin.0d7c0a52-6a0e-4c29-9d5b-3f1f8a7b7c11.epp.low");
  EXPECT_EQ(Subject(3, 13), "qmlogcache.0d7c0a52-6a0e-4c29-9d5b-3f1f8a7b7c11.tag.real");
  EXPECT_EQ(Subject(-7, 2000000000), "qmlogcache.0d7c0a52-6a0e-4c29-9d5b-3f1f8a7b7c11.other.other");
}

TEST(SubjectTest, AllSubjectsAreThoseThatRecordsCanHave) {
  const std::vector<std::string> vecAll = AllSubjects("p.q", kAgent);
  const std::set<std::string> setAll(vecAll.begin(), vecAll.end());
  EXPECT_EQ(setAll.size(), 20U);
  std::set<std::string> setMade;
  for (int32_t iMsgType = -5; iMsgType < 20; ++iMsgType) {
    for (int32_t iPriv = -5; iPriv < 40; ++iPriv) {
      setMade.insert(Subject(iMsgType, iPriv, "p.q"));
    }
  }
  EXPECT_EQ(setMade, setAll);
}

TEST(SubjectTest, APrefixIsTokensOfPlainCharacters) {
  for (const char* pszGood : {"a", "qmlogcache", "A-1_z", "fleet.berlin.7", "x._INBOX", "_", "-"}) {
    EXPECT_EQ(CheckSubjectPrefix(pszGood), "") << pszGood;
  }
  EXPECT_EQ(CheckSubjectPrefix(std::string(128, 'x')), "");
  for (const char* pszBad :
       {"", ".", "a.", ".a", "a..b", "a b", "a*", "*", ">", "a.>", "$JS.API", "a\tb", "a\r\nPUB", "ä", "\"", "a/b"}) {
    EXPECT_EQ(CheckSubjectPrefix(pszBad),
              "\"" + std::string(pszBad) +
                  "\" is no subject prefix: letters, digits, - and _, in tokens with a dot in between");
  }
  EXPECT_EQ(CheckSubjectPrefix(std::string_view("a\0b", 3)).empty(), false);
  EXPECT_EQ(CheckSubjectPrefix(std::string(129, 'x')), "\"" + std::string(129, 'x') + "\" is longer than 128 bytes");
  EXPECT_EQ(CheckSubjectPrefix("_INBOX"), "subjects under _INBOX are the server's own");
  EXPECT_EQ(CheckSubjectPrefix("_INBOX.a"), "subjects under _INBOX are the server's own");
}

TEST(SubjectTest, AStreamsNameIsOneToken) {
  EXPECT_EQ(CheckStreamName("LOGS-1_a"), "");
  for (const char* pszBad : {"", "a.b", "a b", "*", ">", "a/b", "a\\b"}) {
    EXPECT_EQ(CheckStreamName(pszBad),
              "\"" + std::string(pszBad) + "\" is no stream's name: 1 to 128 letters, digits, - and _");
  }
  EXPECT_NE(CheckStreamName(std::string(129, 'x')), "");
}

TEST(SubjectTest, PatternsMatchTokenByToken) {
  struct Row {
    const char* pszPattern;
    const char* pszSubject;
    bool bMatches;
  };
  for (const Row& row : std::vector<Row>{{"a.b.c", "a.b.c", true},
                                         {"a.b.c", "a.b", false},
                                         {"a.b", "a.b.c", false},
                                         {"a.*.c", "a.b.c", true},
                                         {"a.*", "a.b.c", false},
                                         {"*.*.*", "a.b.c", true},
                                         {"*", "a.b.c", false},
                                         {">", "a.b.c", true},
                                         {"a.>", "a.b.c", true},
                                         {"a.b.c.>", "a.b.c", false},
                                         {"a.b.>", "a.b.c", true},
                                         {"a.bb.c", "a.b.c", false},
                                         {"a.b*.c", "a.b.c", false},
                                         {">.c", "a.b.c", false},
                                         {"", "a", false},
                                         {"a.", "a", false}}) {
    EXPECT_EQ(SubjectMatches(row.pszPattern, row.pszSubject), row.bMatches) << row.pszPattern << " " << row.pszSubject;
  }
}

struct ServersRow {
  const char* pszList;
  std::vector<std::string> vecUrls;
  bool bTls;
  bool bLoopback;
};

TEST(NatsServersTest, ReadsListsOfUrls) {
  for (const ServersRow& row : std::vector<ServersRow>{
           {"nats://a.example:1", {"nats://a.example:1"}, false, false},
           {"a.example", {"nats://a.example:4222"}, false, false},
           {"127.0.0.1:7", {"nats://127.0.0.1:7"}, false, true},
           {"tls://a.example , tls://[::1]:9", {"tls://a.example:4222", "tls://[::1]:9"}, true, false},
           {" localhost:1,nats://127.1.2.3/", {"nats://localhost:1", "nats://127.1.2.3:4222"}, false, true}}) {
    NatsServers servers;
    EXPECT_EQ(ReadNatsServers(row.pszList, servers), "") << row.pszList;
    EXPECT_EQ(servers.vecUrls, row.vecUrls) << row.pszList;
    EXPECT_EQ(servers.bTls, row.bTls) << row.pszList;
    EXPECT_EQ(servers.bLoopback, row.bLoopback) << row.pszList;
  }
}

TEST(NatsServersTest, RefusesWhatIsNoServer) {
  struct Row {
    const char* pszList;
    const char* pszWrong;
  };
  const char* pszEmpty = "a server's URL is empty or holds a byte that no URL has";
  const char* pszUnreadable = "a server's URL cannot be read: it is nats://HOST:PORT or tls://HOST:PORT";
  const char* pszSecret =
      "a server's URL holds a user or a token, which would not stay secret: use credentials_file, token_file or user "
      "and "
      "password_file";
  for (const Row& row : std::vector<Row>{
           {"", pszEmpty},
           {"a,", pszEmpty},
           {"a,,b", pszEmpty},
           {"a b", pszEmpty},
           {"a\nb", pszEmpty},
           {"nats://", pszUnreadable},
           {"nats://a:99999", pszUnreadable},
           {"nats://a:x", pszUnreadable},
           {"http://a", "a server's scheme is http: only nats and tls are known"},
           {"nats://user:secret@a", pszSecret},
           {"nats://secret@a", pszSecret},
           {"nats://a/path", "a server's URL ends behind its port"},
           {"nats://a?q", "a server's URL ends behind its port"},
           {"nats://a#f", "a server's URL ends behind its port"},
           {"nats://a,tls://b",
            "some servers are tls:// and some are not: records must not go out in the clear by chance"},
       }) {
    NatsServers servers;
    EXPECT_EQ(ReadNatsServers(row.pszList, servers), row.pszWrong) << row.pszList;
  }
  std::string strMany = "a";
  for (int i = 0; i < 32; ++i) {
    strMany += ",a";
  }
  NatsServers servers;
  EXPECT_EQ(ReadNatsServers(strMany, servers), "more than 32 servers");
}

}  // namespace
