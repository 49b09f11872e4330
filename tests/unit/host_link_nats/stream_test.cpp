// What the agent needs of a stream, and which streams lose what they acknowledged.
#include "host/link/nats/nats_stream.h"

#include <gtest/gtest.h>
#include <nats/nats.h>

#include <string>
#include <vector>

namespace {

// A stream as docs/links.md asks for it; a test spoils it.
class NatsStreamTest : public ::testing::Test {
 protected:
  NatsStreamTest() {
    jsStreamConfig_Init(&m_config);
    m_config.Subjects = m_apszSubjects;
    m_config.SubjectsLen = 1;
    m_config.Discard = js_DiscardNew;
    m_info.Config = &m_config;
    m_cluster.Leader = m_acLeader;
    m_info.Cluster = &m_cluster;
  }
  std::string WhyNot() const { return WhyStreamIsOfNoUse("LOGS", m_info, {"a.b", "a.c"}); }
  std::string Losses() const { return DescribeLosses("LOGS", m_info); }

  const char* m_apszSubjects[1] = {"a.>"};
  char m_acLeader[4] = "one";
  jsStreamConfig m_config{};
  jsClusterInfo m_cluster{};
  jsStreamInfo m_info{};
};

TEST_F(NatsStreamTest, AGoodOneIsUsedWithoutAWord) {
  EXPECT_EQ(WhyNot(), "");
  EXPECT_EQ(Losses(), "");
  m_info.Cluster = nullptr;  // a single server
  EXPECT_EQ(WhyNot(), "");
}

TEST_F(NatsStreamTest, OneThatCannotTakeRecordsOrDoesNotSaySoIsOfNoUse) {
  m_apszSubjects[0] = "a.b";
  EXPECT_EQ(WhyNot(), "the stream LOGS does not take the subject a.c");
  m_config.NoAck = true;
  EXPECT_EQ(WhyNot(), "the stream LOGS acknowledges nothing (no_ack): no record would ever be known to be delivered");
  m_acLeader[0] = '\0';
  EXPECT_EQ(WhyNot(), "the stream LOGS has no leader");
  m_cluster.Leader = nullptr;
  EXPECT_EQ(WhyNot(), "the stream LOGS has no leader");
  m_info.Config = nullptr;
  EXPECT_EQ(WhyNot(), "the server did not tell about the stream LOGS");
}

TEST_F(NatsStreamTest, DiscardOldLosesRecordsOnlyAtALimit) {
  const std::string strOld = "the stream LOGS drops its oldest records at its limits (discard old)";
  m_config.Discard = js_DiscardOld;
  m_config.MaxMsgs = m_config.MaxBytes = -1;
  EXPECT_EQ(Losses(), "");
  m_config.MaxMsgs = 5;
  EXPECT_EQ(Losses(), strOld);
  m_config.MaxMsgs = -1;
  m_config.MaxBytes = 5;
  EXPECT_EQ(Losses(), strOld);
  m_config.Discard = js_DiscardNew;
  EXPECT_EQ(Losses(), "");
}

TEST_F(NatsStreamTest, ABoundOfASubjectLosesRecordsUnlessNewOnesAreRefused) {
  const std::string strSubject = "the stream LOGS drops the oldest records of a subject (max_msgs_per_subject)";
  m_config.MaxMsgsPerSubject = 1;
  EXPECT_EQ(Losses(), strSubject);
  m_config.DiscardNewPerSubject = true;
  EXPECT_EQ(Losses(), "");
  m_config.Discard = js_DiscardOld;
  EXPECT_EQ(Losses(), strSubject);
}

TEST_F(NatsStreamTest, EveryWayToLoseRecordsIsNamed) {
  m_config.Retention = js_WorkQueuePolicy;
  EXPECT_EQ(Losses(), "");
  m_config.Retention = js_InterestPolicy;
  m_config.Storage = js_MemoryStorage;
  EXPECT_EQ(Losses(),
            "the stream LOGS drops what no consumer waits for (retention interest); it keeps its records in memory "
            "(storage memory)");
}

}  // namespace
