#include <vector>

#include "tests/support/manager_fixture.h"

namespace {

class CountLimitTest : public ComponentTest {
 protected:
  CountLimitTest() { EXPECT_TRUE(m_data.InitCacheData()); }

  int Add(unsigned long long u64DataId) {
    return m_data.AddDataAction(0, u64DataId, 1, 1, 1, kSenderText, "prod", "comb", "text");
  }

  CLogCacheData m_data;
  CLogCacheDataPeer m_peer{m_data};
};

TEST_F(CountLimitTest, ReportsTheLimitOneRecordAboveIt) {
  m_peer.SetDataCountLimit(2);
  EXPECT_EQ(0, m_data.CheckExecDataLimit());
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(0, m_data.CheckExecDataLimit());
  EXPECT_EQ(0, Add(2));
  EXPECT_EQ(0, m_data.CheckExecDataLimit());
  EXPECT_EQ(0, Add(3));
  EXPECT_EQ(static_cast<int>(0xA0010014), m_data.CheckExecDataLimit());
}

TEST_F(CountLimitTest, RefusesANewRecordAtTheLimit) {
  m_peer.SetDataCountLimit(2);
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(0, Add(2));
  EXPECT_EQ(0, Add(3));
  EXPECT_EQ(static_cast<int>(0xA0010014), Add(4));
  EXPECT_EQ(3u, m_peer.MapSize());
  EXPECT_FALSE(m_data.IsDataIdExist(4));
  EXPECT_EQ(3u, m_peer.QueueCount(1));
  EXPECT_TRUE(m_peer.Marked().empty());
}

TEST_F(CountLimitTest, WithCoverTheNewRecordIsFiledAndTheOldestMarked) {
  m_peer.SetDataCountLimit(2);
  m_peer.SetDataCoverFlag(1);
  for (const unsigned long long u64DataId : {20ULL, 10ULL, 30ULL}) {
    EXPECT_EQ(0, Add(u64DataId));
  }
  EXPECT_TRUE(m_peer.Marked().empty());
  EXPECT_EQ(0, Add(40));
  EXPECT_EQ(4u, m_peer.MapSize());
  EXPECT_EQ((std::vector<unsigned long long>{10}), m_peer.Marked());
  EXPECT_EQ(0, Add(50));
  EXPECT_EQ((std::vector<unsigned long long>{10, 20}), m_peer.Marked());
}

TEST_F(CountLimitTest, MarksTheThreeSmallestIdsOneByOne) {
  for (const unsigned long long u64DataId : {40ULL, 20ULL, 10ULL, 30ULL}) {
    EXPECT_EQ(0, Add(u64DataId));
  }
  m_data.DelFirLineFromExecData();
  EXPECT_EQ((std::vector<unsigned long long>{10}), m_peer.Marked());
  m_data.DelFirLineFromExecData();
  m_data.DelFirLineFromExecData();
  EXPECT_EQ((std::vector<unsigned long long>{10, 20, 30}), m_peer.Marked());
  EXPECT_EQ(4u, m_peer.MapSize());
  EXPECT_EQ(4u, m_peer.QueueCount(1));
}

TEST_F(CountLimitTest, MarksAnOldRecordThatComesBackBeforeNewerOnes) {
  for (const unsigned long long u64DataId : {20ULL, 30ULL, 40ULL}) {
    EXPECT_EQ(0, Add(u64DataId));
  }
  m_data.DelFirLineFromExecData();
  m_data.DelFirLineFromExecData();
  EXPECT_EQ(0, Add(10));
  m_data.DelFirLineFromExecData();
  EXPECT_EQ((std::vector<unsigned long long>{10, 20, 30}), m_peer.Marked());
  m_data.DelFirLineFromExecData();
  EXPECT_EQ((std::vector<unsigned long long>{10, 20, 30, 40}), m_peer.Marked());
}

TEST_F(CountLimitTest, GoesOnMarkingWhereMarkedRecordsHaveLeft) {
  for (const unsigned long long u64DataId : {10ULL, 20ULL, 30ULL}) {
    EXPECT_EQ(0, Add(u64DataId));
  }
  m_data.DelFirLineFromExecData();
  EXPECT_EQ(0, m_data.DeleteDataAction(10));
  EXPECT_EQ(0, m_data.DeleteDataAction(20));
  m_data.DelFirLineFromExecData();
  EXPECT_EQ((std::vector<unsigned long long>{30}), m_peer.Marked());
}

TEST_F(CountLimitTest, MarkingChangesNothingWhenAllAreMarked) {
  EXPECT_EQ(0, Add(1));
  EXPECT_EQ(0, Add(2));
  for (int i = 0; i < 5; ++i) {
    m_data.DelFirLineFromExecData();
  }
  EXPECT_EQ((std::vector<unsigned long long>{1, 2}), m_peer.Marked());
}

TEST_F(CountLimitTest, MarkingAnEmptyStoreChangesNothing) {
  m_data.DelFirLineFromExecData();
  EXPECT_EQ(0u, m_peer.MapSize());
}

}  // namespace
