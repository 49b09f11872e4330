// Want of memory in the store's work with files: a code or another attempt, never a lost record.
#include <string>

#include "tests/support/allocation_faults.h"
#include "tests/unit/store/store_fixture.h"

namespace {

constexpr unsigned int kMoreThanEnough = 5000;

class StoreMemoryTest : public StoreTest {
 protected:
  // In memory and queued all of them; a row for those that count as written and for no other.
  void ExpectNothingLost(unsigned long long u64Last, unsigned int uAllocation) {
    EXPECT_EQ(IdRange(1, u64Last), Peer().Ids()) << uAllocation;
    EXPECT_EQ(u64Last, Peer().QueueCount(1)) << uAllocation;
    EXPECT_EQ(Rows(), Peer().Ids(2)) << uAllocation;
  }
};

TEST_F(StoreMemoryTest, AnIntakeWithoutMemoryIsRefusedOrFilesItsRecordWhole) {
  bool bFailed = true;
  for (unsigned int uAllocation = 1; bFailed; ++uAllocation) {
    ASSERT_LT(uAllocation, kMoreThanEnough);
    Open();
    const CPString strSender(kSenderText);
    const CPString strData("the data of a record, which is longer than a short string");
    int iRet = 0;
    bool bThrown = false;
    {
      const CNthAllocationFault fault(uAllocation);
      try {
        iRet = Data().AddDataAction(0, 1, 1, 1, 1, strSender, strData, strData, strData);
      } catch (const std::bad_alloc&) {
        bThrown = true;
      }
      bFailed = fault.HasFailed();
    }
    EXPECT_FALSE(bThrown) << uAllocation;
    if (iRet == 0) {
      ExpectNothingLost(1, uAllocation);
    } else {
      EXPECT_EQ(static_cast<int>(0xE0010003), iRet) << uAllocation;
      EXPECT_EQ(0u, Peer().MapSize()) << uAllocation;
      EXPECT_TRUE(Rows().empty()) << uAllocation;
    }
    m_pData.reset();
    std::filesystem::remove_all(CachePath());
  }
}

TEST_F(StoreMemoryTest, TheMapStaysWholeWhereverItFindsNoMemoryAsItGrows) {
  constexpr unsigned long long kRecords = 3001;  // a prime: every stride visits every id
  Open();
  Peer().SetDataFlowFlag(2);
  const CPString strSender(kSenderText);
  EXPECT_EQ(0, Add(kRecords, kSenderText));
  unsigned int uRefused = 0;
  unsigned long long u64Filed = 1;
  for (const unsigned long long u64Stride : {1ULL, 1500ULL}) {
    for (unsigned long long i = 1; i < kRecords; ++i) {
      const unsigned long long u64DataId = i * u64Stride % kRecords;
      if ((u64Stride == 1 && u64DataId % 2 == 0) || Data().IsDataIdExist(u64DataId)) {
        continue;  // in order first, then the rest in between
      }
      for (unsigned int uAllocation = 1; !Data().IsDataIdExist(u64DataId); ++uAllocation) {
        ASSERT_LT(uAllocation, kMoreThanEnough);
        ASSERT_EQ(u64Filed, Peer().MapSize());
        const CNthAllocationFault fault(uAllocation);
        uRefused += Data().AddDataAction(0, u64DataId, 1, 1, 1, strSender, "", "", "text") == 0 ? 0 : 1;
      }
      ++u64Filed;
    }
  }
  EXPECT_EQ(IdRange(1, kRecords), Peer().Ids());
  EXPECT_GT(uRefused, kRecords);  // each time without a record, and sometimes without a node
  for (unsigned long long u64DataId = 1; u64DataId <= kRecords; ++u64DataId) {
    ASSERT_EQ(u64DataId, Peer().Find(u64DataId)->u64DataId);
    ASSERT_EQ(0, Data().DeleteDataAction(u64DataId));
  }
  EXPECT_EQ(0u, Peer().MapSize());
}

TEST_F(StoreMemoryTest, ASaveWritesEveryRecordThoughOneAllocationFails) {
  bool bFailed = true;
  for (unsigned int uAllocation = 1; bFailed; ++uAllocation) {
    ASSERT_LT(uAllocation, kMoreThanEnough);
    Open();
    AddPending(1, 3);
    {
      const CNthAllocationFault fault(uAllocation);
      EXPECT_EQ(1, Data().SaveCacheToDb());
      bFailed = fault.HasFailed();
    }
    EXPECT_EQ((DataIds{1, 2, 3}), Rows()) << uAllocation;
    EXPECT_EQ((DataIds{1, 2, 3}), Peer().Ids(2)) << uAllocation;
    m_pData.reset();
    std::filesystem::remove_all(CachePath());
  }
}

TEST_F(StoreMemoryTest, ASaveThatFindsNoRoomForItsStatementLeavesTheRecordsPending) {
  Open();
  EXPECT_EQ(0, Add(1));
  const std::string strLong(200000, 'x');
  Peer().SetDataFlowFlag(1);
  EXPECT_EQ(0, Add(2, kSenderText, strLong.c_str()));
  EXPECT_EQ(0, Add(3, kSenderText, strLong.c_str()));
  {
    const CLargeAllocationFault fault(100000);
    EXPECT_EQ(1, Data().SaveCacheToDb());
  }
  EXPECT_EQ((DataIds{2, 3}), Peer().Ids(1));
  EXPECT_EQ((DataIds{1}), Rows());
  EXPECT_TRUE(LoggedOnce(kMainChannel, 3, "*qmlogcache CLogCacheData::SaveCacheToDb Warn records not written[2]"));
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ((DataIds{1, 2, 3}), Rows());
}

TEST_F(StoreMemoryTest, WhatFindsNoRoomAsABatchIsWrittenRecordByRecord) {
  constexpr unsigned long long kRecords = 10;
  Open("dataflowflag = 1\n");
  const std::string strText(30000, 'x');
  for (unsigned long long u64DataId = 1; u64DataId <= kRecords; ++u64DataId) {
    EXPECT_EQ(0, Add(u64DataId, kSenderText, strText.c_str()));
  }
  {
    const CLargeAllocationFault fault(100000);
    EXPECT_EQ(1, Data().SaveCacheToDb());
  }
  EXPECT_EQ(IdRange(1, kRecords), Rows());
  EXPECT_EQ(IdRange(1, kRecords), Peer().Ids(2));
}

TEST_F(StoreMemoryTest, AnIntakeThatFindsNoRoomForItsStatementLeavesTheRecordPending) {
  Open();
  EXPECT_EQ(0, Add(1));
  const CPString strLong(std::string(200000, 'x').c_str());
  {
    const CLargeAllocationFault fault(100000);
    EXPECT_EQ(0, Data().AddDataAction(0, 2, 1, 1, 1, kSenderText, "prod", "comb", strLong));
  }
  EXPECT_EQ(1, Status(2));
  EXPECT_EQ(2u, Peer().QueueCount(1));
  EXPECT_EQ(1, Data().SaveCacheToDb());
  EXPECT_EQ((DataIds{1, 2}), Rows());
}

}  // namespace
