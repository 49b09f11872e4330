// The rows of a manager's records, from intake to settlement and over a restart.
#include <string>
#include <vector>

#include "tests/support/cache_files.h"
#include "tests/support/manager_fixture.h"

namespace {

constexpr uint32_t kTimeout = 0xE0010019;

using DataIds = std::vector<unsigned long long>;

class RowsTest : public ManagerTest {
 protected:
  // Written at intake, unless the configuration says something else.
  explicit RowsTest(const std::string& strConfig = "") : ManagerTest(strConfig) {}

  DataIds Rows() const { return Exists(CacheFile()) ? IdsOf(CacheFile()) : DataIds(); }
  static void FailDeletes() {
    CStorageFaults::SetExecHook(
        [](std::string_view svSql) { return svSql.starts_with("delete from") ? SQLITE_IOERR : SQLITE_OK; });
  }
};

// Written at a save, or when a record is queued again.
class PendingRowsTest : public RowsTest {
 protected:
  PendingRowsTest() : RowsTest("dataflowflag = 1\n") {}
};

TEST_F(RowsTest, IntakeWritesTheTaggedText) {
  EXPECT_EQ(kFirstDataId, AddRecord());
  EXPECT_EQ((std::vector<std::string>{
                "7301444403200000001|1|1|prod|combo|0|<version=1><dataid=6553f10000000001><priv=1><msgtype=1>"
                "<guid=01234567-89AB-CDEF-0123-456789ABCDEF><product=prod><combo=combo><end=1><msg=data>"}),
            CShell(CacheFile()).Run("select dataid, priv, msgtype, product, combo, datatype, data from logcache"));
}

TEST_F(RowsTest, ARefusedSendTakesTheRowOut) {
  m_context.SetSendHandler([](const SentMessage&, uint64_t*) { return 0xB0010099u; });
  AddRecord();
  AddRecord();
  EXPECT_EQ((DataIds{kFirstDataId, kFirstDataId + 1}), Rows());
  const ExecDataHold hold = m_data.GetExecData();
  ASSERT_NE(nullptr, hold);
  EXPECT_EQ(0, m_manager.RunExecData(hold.get()));
  EXPECT_FALSE(m_data.IsDataIdExist(kFirstDataId));
  EXPECT_EQ((DataIds{kFirstDataId + 1}), Rows());
}

TEST_F(RowsTest, ARefusedSendTellsWhenTheRowCannotBeTakenOut) {
  m_context.SetSendHandler([](const SentMessage&, uint64_t*) { return 0xB0010099u; });
  AddRecord();
  const ExecDataHold hold = m_data.GetExecData();
  ASSERT_NE(nullptr, hold);
  FailDeletes();
  EXPECT_EQ(0, m_manager.RunExecData(hold.get()));
  EXPECT_TRUE(LoggedOnce(
      kMainChannel, 3,
      "*qmlogcache step2 Error RunExecData AsynSendEx DeleteDataAction Error iRet[a0010025] i64MsgType[4e22] "
      "u64DataId[6553f10000000001] iPriv[1] iMsgType[1] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] "
      "strProduct[prod] strCombo[combo]"));
  EXPECT_FALSE(m_data.IsDataIdExist(kFirstDataId));
}

TEST_F(RowsTest, ADeliveredRecordLeavesMemoryAndItsFile) {
  const unsigned long long u64DataId = SendRecord();
  AddRecord();
  CLogCapture::Reset();
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, 0, 0xac7));
  EXPECT_TRUE(LoggedExactly(
      {{kMainChannel, 2,
        "qmlogcache step3 OK ResultExecData DeleteDataAction OK SubSendRef lRefCount[0] StartTime[6553f100] "
        "ReSendCount[0] ui64ACT[ac7] u64DataId[6553f10000000001] iPriv[1] iMsgType[1] iDataSaveStatus[2] "
        "strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] strCombo[combo]\n"}}));
  EXPECT_FALSE(m_data.IsDataIdExist(u64DataId));
  EXPECT_EQ((DataIds{u64DataId + 1}), Rows());
}

TEST_F(RowsTest, ADeliveredRecordLeavesMemoryAlsoWhenItsRowStays) {
  const unsigned long long u64DataId = SendRecord();
  FailDeletes();
  EXPECT_EQ(static_cast<int>(0xA0010025), m_manager.ResultExecData(u64DataId, 0, 0xac7));
  EXPECT_TRUE(LoggedOnce(
      kMainChannel, 3,
      "*qmlogcache step3 OK Error ResultExecData OK DeleteDataAction Error iRet[a0010025] SubSendRef lRefCount[0] "
      "StartTime[6553f100] ReSendCount[0] ui64ACT[ac7] u64DataId[6553f10000000001] iPriv[1] iMsgType[1] "
      "iDataSaveStatus[2] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] strCombo[combo]\n"));
  EXPECT_EQ(1u, m_peer.Statistics().CountSuccess);
  EXPECT_EQ(0u, m_dataPeer.MapSize());
}

TEST_F(RowsTest, ARejectedRecordLeavesMemoryAndItsFile) {
  const unsigned long long u64DataId = SendRecord();
  AddRecord();
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, 0x1, 0xac7));
  EXPECT_TRUE(LoggedOnce(
      kMainChannel, 3,
      "*qmlogcache step3 Error ResultExecData DeleteDataAction OK SubSendRef lRefCount[0] result[1] "
      "StartTime[6553f100] ReSendCount[0] ui64ACT[ac7] u64DataId[6553f10000000001] iPriv[1] iMsgType[1] "
      "iDataSaveStatus[2] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] strCombo[combo]\n"));
  EXPECT_FALSE(m_data.IsDataIdExist(u64DataId));
  EXPECT_EQ((DataIds{u64DataId + 1}), Rows());
}

TEST_F(RowsTest, ARejectedRecordLeavesMemoryAlsoWhenItsRowStays) {
  const unsigned long long u64DataId = SendRecord();
  FailDeletes();
  EXPECT_EQ(static_cast<int>(0xA0010025), m_manager.ResultExecData(u64DataId, 0x1, 0xac7));
  EXPECT_TRUE(LoggedOnce(
      kMainChannel, 3,
      "*qmlogcache step3 Error ResultExecData DeleteDataAction Error iRet[a0010025] SubSendRef lRefCount[0] result[1] "
      "StartTime[6553f100] ReSendCount[0] ui64ACT[ac7] u64DataId[6553f10000000001] iPriv[1] iMsgType[1] "
      "iDataSaveStatus[2] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] strCombo[combo]\n"));
  EXPECT_EQ(0u, m_dataPeer.MapSize());
}

TEST_F(RowsTest, ARetriedRecordKeepsItsRow) {
  const unsigned long long u64DataId = SendRecord();
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, kTimeout, 0));
  EXPECT_EQ((DataIds{u64DataId}), Rows());
  EXPECT_EQ(1u, CStorageFaults::Statements("insert").size());
  EXPECT_EQ(1u, m_dataPeer.QueueCount(1));
}

TEST_F(RowsTest, ARecordThatItsQueueRefusesIsLostWithItsRow) {
  const unsigned long long u64DataId = SendRecord();
  CPlatformFaults::RefuseQueueInserts(true);
  EXPECT_EQ(static_cast<int>(0xE0010003), m_manager.ResultExecData(u64DataId, kTimeout, 0));
  EXPECT_EQ(0u, m_dataPeer.MapSize());
  EXPECT_TRUE(Rows().empty());
}

TEST_F(RowsTest, ADroppedRecordIsDeletedWithItsRowInsteadOfBeingSent) {
  AddRecord();
  AddRecord();
  m_data.DelFirLineFromExecData();
  m_peer.SetConnected(true);
  CLogCacheMgrPeer::WorkState state = m_peer.BeginWork();
  EXPECT_TRUE(m_peer.WorkStep(state));
  EXPECT_TRUE(m_context.Sends().empty());
  EXPECT_EQ((DataIds{kFirstDataId + 1}), m_dataPeer.Ids());
  EXPECT_EQ((DataIds{kFirstDataId + 1}), Rows());
}

TEST_F(RowsTest, AMemoryOnlyRecordHasNoRow) {
  EXPECT_EQ(0, m_manager.AddExecData(10101, 1, 1, 0, kSenderText, "prod", "combo", "data"));
  EXPECT_FALSE(Exists(CacheFile()));
}

TEST_F(RowsTest, RecordsComeBackAfterARestartWhenTheTimerBegins) {
  AddRecord();
  AddRecord();
  EXPECT_EQ(0, m_manager.ResultExecData(SendRecord(2), kTimeout, 0));
  EXPECT_TRUE(m_manager.Stop());
  CLogCacheMgr::Close();

  CFakeClock::Advance(1);
  CLogCacheMgr& manager = *CLogCacheMgr::Instance();
  CLogCacheMgrPeer peer(manager);
  CLogCacheDataPeer dataPeer(peer.Data());
  EXPECT_TRUE(manager.Init());
  EXPECT_EQ(0u, dataPeer.MapSize());
  CFakeClock::SetSleepHook([&](unsigned int) { peer.RequestStop(); });
  EXPECT_FALSE(peer.TimerStep(peer.BeginTimer()));
  EXPECT_EQ((DataIds{kFirstDataId, kFirstDataId + 1, kFirstDataId + 2}), dataPeer.Ids(2));
  EXPECT_EQ(0, manager.ResultExecData(kFirstDataId + 1, 0, 0));
  EXPECT_EQ((DataIds{kFirstDataId, kFirstDataId + 2}), Rows());
  CLogCacheMgr::Close();
}

TEST_F(PendingRowsTest, StopSavesPendingRecords) {
  AddRecord();
  EXPECT_FALSE(Exists(CacheFile()));
  EXPECT_TRUE(m_manager.Stop());
  EXPECT_EQ((DataIds{kFirstDataId}), Rows());
}

TEST_F(PendingRowsTest, ATimedOutRecordIsWrittenWhenItIsQueuedAgain) {
  const unsigned long long u64DataId = SendRecord();
  EXPECT_FALSE(Exists(CacheFile()));
  EXPECT_EQ(0, m_manager.ResultExecData(u64DataId, kTimeout, 0xac7));
  EXPECT_TRUE(LoggedOnce(
      kMainChannel, 3,
      "*qmlogcache step3 Error ResultExecData ReAddDataAction OK SubSendRef lRefCount[0] result[e0010019] "
      "StartTime[6553f100] ReSendCount[0] ui64ACT[ac7] u64DataId[6553f10000000001] iPriv[1] iMsgType[1] "
      "iDataSaveStatus[1] strPluginId[01234567-89AB-CDEF-0123-456789ABCDEF] strProduct[prod] strCombo[combo]\n"));
  EXPECT_EQ((DataIds{u64DataId}), Rows());
  EXPECT_EQ((DataIds{u64DataId}), m_dataPeer.Ids(2));
}

TEST_F(PendingRowsTest, ADeliveredRecordThatWasNeverWrittenTouchesNoFile) {
  EXPECT_EQ(0, m_manager.ResultExecData(SendRecord(), 0, 0));
  EXPECT_EQ(0u, m_dataPeer.MapSize());
  EXPECT_TRUE(CStorageFaults::Statements("").empty());
}

TEST_F(PendingRowsTest, AtSeventeenFailuresPendingRecordsAreSavedAndNewOnesWrittenAtOnce) {
  AddRecord();
  m_peer.SetSendSingle(1);
  m_peer.SetSendErrorCount(16);
  int iWaitSec = 0;
  EXPECT_TRUE(m_manager.IsAllowSend(iWaitSec));
  EXPECT_FALSE(Exists(CacheFile()));
  m_peer.SetSendErrorCount(17);
  EXPECT_TRUE(m_manager.IsAllowSend(iWaitSec));
  EXPECT_EQ(1, iWaitSec);
  EXPECT_EQ((DataIds{kFirstDataId}), Rows());
  AddRecord();
  EXPECT_EQ((DataIds{kFirstDataId, kFirstDataId + 1}), Rows());
  m_manager.SetSendSingleFlag(0);  // a record was delivered
  EXPECT_TRUE(m_manager.IsAllowSend(iWaitSec));
  AddRecord();
  EXPECT_EQ((DataIds{kFirstDataId, kFirstDataId + 1}), Rows());
  EXPECT_EQ((DataIds{kFirstDataId + 2}), m_dataPeer.Ids(1));
}

}  // namespace
