// Which records are in their senders' files, and when.
#include <algorithm>
#include <filesystem>
#include <fstream>

#include "cache_file_fixture.h"

namespace {

constexpr char kOddData[] = "it's \"odd\"; -- '); drop table logcache;\n%s \xc3\xa9 <x>";

class PersistenceTest : public CCacheFileTest {
 protected:
  CacheRow ExpectedRow(const SentFields& fields) {
    return {fields.u64DataId,
            fields.iPriv,
            fields.iMsgType,
            std::string(fields.svProduct),
            std::string(fields.svCombo),
            0,
            ExpectedText(fields)};
  }
  // Files the one record of this life and waits until it is sent.
  void FileAndSend(uint32_t uMsgType = 10101) {
    FileRecord(uMsgType, kOddData);
    ASSERT_TRUE(m_router.WaitForSent(1));
    ASSERT_EQ(m_router.Sent().front().u64DataId, IdOf(1));
  }
};

TEST_F(PersistenceTest, AnAcceptedRecordIsInItsSendersFileBeforeTheAnswerComes) {
  std::vector<CacheRow> vecRows;
  m_router.m_pfnOnReply = [&](const Answer& answer) {
    ASSERT_EQ(answer.strText, "success");
    vecRows = Rows();
  };
  BeginLife();
  FileRecord(10203, kOddData);
  EXPECT_EQ(vecRows, (std::vector<CacheRow>{ExpectedRow({IdOf(1), 3, 2, "", "", kOddData})}));
  const std::string strProduct(64, '\'');
  const ComboFields combo{-7, 13, 1, strProduct, "c''ombo", kOddData};
  ASSERT_TRUE(Succeeded(m_router.Deliver(20300, kProducer, ComboPayload(combo))));
  EXPECT_EQ(vecRows, (std::vector<CacheRow>{ExpectedRow({IdOf(1), 3, 2, "", "", kOddData}),
                                            ExpectedRow({IdOf(2), 13, -7, strProduct, "c''ombo", kOddData})}));
}

TEST_F(PersistenceTest, EachSenderHasAFileNamedByItsGuidText) {
  BeginLife();
  FileRecord(10100, "one");
  ASSERT_TRUE(Succeeded(m_router.Deliver(10213, kOtherProducer, "two")));
  FileRecord(10102, "three");
  EXPECT_EQ(DatabasesIn(m_prefix.CacheDirectory()),
            (std::vector<std::string>{std::string(kProducerText) + ".db", std::string(kOtherProducerText) + ".db"}));
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(1), IdOf(3)}));
  EXPECT_EQ(RowIds(kOtherProducerText), (std::vector<uint64_t>{IdOf(2)}));
}

TEST_F(PersistenceTest, ADeliveredRecordIsGoneFromItsFileWhenItsResultIsAnswered) {
  BeginConnectedLife();
  FileAndSend();
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(1)}));
  size_t uRows = 1;
  m_router.m_pfnOnReply = [&](const Answer& answer) {
    ASSERT_EQ(answer.strText, "success");
    uRows = Rows().size();
  };
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1), 0)));
  EXPECT_EQ(uRows, 0u);
  EXPECT_EQ(LogField(m_log.Lines("qmlogcache step3 OK").at(0).strText, "iDataSaveStatus"), "2");
}

TEST_F(PersistenceTest, ARejectedRecordIsGoneFromItsFile) {
  BeginConnectedLife();
  FileAndSend();
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1), 0x1234)));
  EXPECT_TRUE(Rows().empty());
}

TEST_F(PersistenceTest, ARecordWhoseSendIsRefusedIsGoneFromItsFile) {
  m_router.m_pfnOnSend = [](const SentMessage&) { return 0xE0010099U; };
  BeginConnectedLife();
  FileRecord();
  ASSERT_TRUE(m_log.WaitForLines("*qmlogcache step2 Error RunExecData AsynSendEx iRet[0] "));
  EXPECT_TRUE(Rows().empty());
}

TEST_F(PersistenceTest, ARetryableRecordStaysInItsFile) {
  BeginConnectedLife();
  FileAndSend();
  const std::vector<CacheRow> vecRows = Rows();
  ASSERT_EQ(vecRows.size(), 1u);
  size_t uSent = 1;
  for (const uint32_t uResult : {kWireTimeout, kWireCloudBusy, kWireCloudFailed}) {
    ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1), uResult)));
    EXPECT_EQ(Rows(), vecRows) << ToHex(uResult);
    ASSERT_TRUE(m_router.WaitForSent(++uSent));
  }
  m_host.EndLife();
  EXPECT_EQ(Rows(), vecRows);
}

TEST_F(PersistenceTest, AResultBeforeTheSendReturnsLeavesNoRow) {
  std::optional<Answer> answer;
  m_router.m_pfnOnSend = [&](const SentMessage& sent) {
    answer = m_router.DeliverResult(sent.u64DataId, 0);
    return 0U;
  };
  BeginConnectedLife();
  FileAndSend();
  EXPECT_TRUE(Succeeded(answer));
  m_host.EndLife();
  EXPECT_TRUE(Rows().empty());
}

TEST_F(PersistenceTest, ARecordMarkedNotToBeSavedIsNeverWritten) {
  constexpr int32_t kDoNotSave = 2;
  BeginConnectedLife();
  ASSERT_TRUE(WaitForLoads(1));
  ASSERT_TRUE(Succeeded(m_router.Deliver(10300, kProducer, ComboPayload({1, 3, kDoNotSave, "p", "c", "fleeting"}))));
  EXPECT_EQ(LogField(m_log.WaitForText("qmlogcache step1 OK AddDataAction "), "iDataSaveStatus"), "0");
  ASSERT_TRUE(m_router.WaitForSent(1));
  ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1), kWireTimeout)));
  ASSERT_TRUE(m_router.WaitForSent(2));
  m_host.Stop();
  EXPECT_EQ(NamesIn(m_prefix.CacheDirectory()), std::vector<std::string>{});
}

TEST_F(PersistenceTest, MemoryOnlyWritesNothingWhateverHappens) {
  constexpr int kFailures = 18;  // enough for a save
  m_prefix.Configure("dataflowflag = 2\n");
  m_clock.SetEventDivisor(1000);
  BeginConnectedLife();
  FileAndSend(10103);
  for (int i = 1; i <= kFailures; ++i) {
    ASSERT_TRUE(Succeeded(m_router.DeliverResult(IdOf(1), kWireTimeout)));
    ASSERT_TRUE(m_router.WaitForSent(static_cast<size_t>(i) + 1));
  }
  ASSERT_TRUE(m_log.WaitForLines(kSaveEnd));
  ASSERT_TRUE(Succeeded(m_router.Deliver(10300, kOtherProducer, ComboPayload({1, 0, 1, "p", "c", "saved, it says"}))));
  m_host.Stop();
  EXPECT_EQ(m_log.Count(kSaveEnd), 2u);
  EXPECT_EQ(NamesIn(m_prefix.CacheDirectory()), std::vector<std::string>{});
  m_host.EndLife();
  m_log.Reset();
  BeginNextLife();
  FileRecord(10100, "the next life's only record");
  ASSERT_TRUE(m_log.WaitForLines("qmlogcache CLogCacheData::LoadExecData GetCacheData cacheDataList[0]"));
  ASSERT_TRUE(m_router.WaitForSent(static_cast<size_t>(kFailures) + 2));
  EXPECT_EQ(m_router.Sent().back().u64DataId, IdOf(1, kFirstLife + 1));
}

TEST_F(PersistenceTest, ADamagedFileIsKeptAsABackupAndTheRecordIsWritten) {
  BeginLife();
  ASSERT_TRUE(WaitForLoads(1));
  const std::string strFile = m_prefix.CacheFile(kProducerText);
  for (const char* pszSuffix : {"", "-wal", "-shm"}) {
    std::ofstream(strFile + pszSuffix, std::ios::binary) << std::string(8192, '\x5a');
  }
  FileRecord(10100, "the first after the damage");
  const std::vector<CacheRow> vecRows = Rows();
  ASSERT_EQ(vecRows.size(), 1u);
  EXPECT_EQ(vecRows[0].u64DataId, IdOf(1));
  EXPECT_EQ(vecRows[0].iDataType, 1);  // the last rung of the repair writes base64
  const std::vector<std::string> vecNames = NamesIn(m_prefix.CacheDirectory());
  EXPECT_NE(std::find(vecNames.begin(), vecNames.end(), std::string(kProducerText) + "1.db.zip"), vecNames.end());
  ExpectLine(6, "qmlogcache CLogCacheDb::BackupDbFile strDbFile[" + strFile + "] strZipName[" +
                    strFile.substr(0, strFile.size() - 3) + "]");
}

TEST_F(PersistenceTest, AFileThatAnOperatorRemovedIsMadeAnewWithoutItsOldRows) {
  BeginLife();
  FileRecord(10100, "removed");
  std::filesystem::remove(m_prefix.CacheFile(kProducerText));  // its side files stay
  FileRecord(10100, "kept");
  EXPECT_EQ(RowIds(), (std::vector<uint64_t>{IdOf(2)}));
}

}  // namespace
