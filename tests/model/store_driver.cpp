#include "tests/model/store_driver.h"

#include <dirent.h>
#include <sqlite3.h>

#include <filesystem>
#include <sstream>
#include <utility>

#include "platform/log_channels.h"
#include "platform/status_codes.h"
#include "tests/model/contents.h"
#include "tests/model/disk.h"
#include "tests/support/cache_files.h"
#include "tests/support/log_capture.h"
#include "tests/support/peers.h"
#include "tests/support/platform_faults.h"
#include "tests/support/storage_faults.h"

namespace {

constexpr time_t kStart = 1700000000;
constexpr unsigned long long kIdsOfALife = 1000000;
constexpr unsigned long long kUnknownId = 7;
constexpr unsigned long long kDiskFreeLimit = 524288000;

// The answer of each statement during a failure. An input/output error and a full disk are no evidence of damage.
int ResultOf(Failure failure, std::string_view svSql) {
  const auto contains = [svSql](std::string_view svPart) { return svSql.find(svPart) != std::string_view::npos; };
  const bool bInsert = contains("insert into logcache ");
  switch (failure) {
    case kPlainInserts:
      return bInsert && contains("', 0, '") ? SQLITE_ERROR : SQLITE_OK;
    case kInserts:
      return bInsert ? SQLITE_FULL : SQLITE_OK;
    case kDeletes:
      return svSql.starts_with("delete ") ? SQLITE_FULL : SQLITE_OK;
    case kSelects:
      return svSql.starts_with("select ") ? SQLITE_IOERR : SQLITE_OK;
    case kCreation:
      return svSql.starts_with("CREATE ") ? SQLITE_FULL : SQLITE_OK;
    case kOpening:
      return svSql.starts_with("PRAGMA ") ? SQLITE_IOERR : SQLITE_OK;
    default:
      return SQLITE_OK;
  }
}

template <typename Value>
void Expect(const std::string& strWhat, const Value& expected, const Value& actual) {
  if (expected != actual) {
    std::ostringstream text;
    text << strWhat << ": expected " << expected << ", is " << actual;
    throw Mismatch(text.str());
  }
}

void ExpectCode(const char* pszWhat, const Codes& expected, int iActual) {
  if (!expected.contains(iActual)) {
    std::ostringstream text;
    text << std::hex << pszWhat << ": expected";
    for (const int iCode : expected) {
      text << " " << static_cast<unsigned int>(iCode);
    }
    text << ", is " << static_cast<unsigned int>(iActual);
    throw Mismatch(text.str());
  }
}

bool IsStoreWarning(const LogLine& line) {
  return line.strText.starts_with("*qmlogcache InsertExecData ") ||
         line.strText.starts_with("*qmlogcache ReInsertExecData ") ||
         line.strText.starts_with("*qmlogcache CLogCacheData::LoadExecData Warn AddDataAction ");
}

}  // namespace

CStoreDriver::CStoreDriver()
    : m_clock(kStart), m_model(static_cast<uint32_t>(kStart)), m_u64NextId(static_cast<unsigned long long>(kStart)) {
  for (const char* pszName : {"bin", "etc/qmlogcache", "data"}) {
    std::filesystem::create_directories(m_directory.Path(pszName));
  }
  CStorageFaults::Reset();
  CStorageFaults::SkipSyncs(true);  // nobody cuts the power here
  CStorageFaults::SetModulePath(m_directory.Path("bin"));
  CPlatformFaults::Reset();
  CPlatformFaults::ShortenWaits(0);
  CLogCapture::Reset();
  g_hLog = LogInit(kMainChannel);
  StartStore();
  ConfigureOne(kFreeSpace, m_model.Configured(kFreeSpace));
}

CStoreDriver::~CStoreDriver() {
  m_pStore.reset();
  CStorageFaults::Reset();
  CPlatformFaults::Reset();
  CLogCapture::Reset();
  g_hLog = nullptr;
}

void CStoreDriver::Run(const Commands& commands) {
  for (size_t i = 0; i < commands.size(); ++i) {
    try {
      Execute(commands[i]);
      Compare();
    } catch (const Mismatch& mismatch) {
      std::ostringstream text;
      text << "command " << i << ", " << commands[i] << ": " << mismatch.what() << "\nin:";
      for (const Command& command : commands) {
        text << " " << command << ",";
      }
      throw Mismatch(text.str());
    }
  }
}

void CStoreDriver::Execute(const Command& command) {
  switch (command.op) {
    case Op::Advance:
      CFakeClock::Advance(command.args[0]);
      m_model.SetTime(static_cast<uint32_t>(CFakeClock::Now()));
      return;
    case Op::Configure:
      ConfigureOne(static_cast<Setting>(command.args[0]), command.args[1]);
      return;
    case Op::Spoil:
      SpoilOne(SenderName(command.args[0]), static_cast<Spoiling>(command.args[1]));
      return;
    case Op::Fail:
      m_failure = static_cast<Failure>(command.args[0]);
      return;
    default:
      break;
  }
  const Failure failure = std::exchange(m_failure, kNothing);
  m_model.SetFailure(failure);
  CStorageFaults::SetExecHook([failure](std::string_view svSql) { return ResultOf(failure, svSql); });
  CPlatformFaults::RefuseQueueInserts(failure == kQueueing);
  ExecuteOnStore(command);
  CPlatformFaults::RefuseQueueInserts(false);
  CStorageFaults::SetExecHook(nullptr);
  m_model.SetFailure(kNothing);
}

void CStoreDriver::ExecuteOnStore(const Command& command) {
  const auto& args = command.args;
  switch (command.op) {
    case Op::Intake: {
      const unsigned long long u64DataId = NewId();
      IntakeOne(u64DataId, MakeContents(u64DataId, args[0], args[1], args[2], static_cast<Payload>(args[3])), args[4],
                args[5]);
      break;
    }
    case Op::IntakeMany:
      for (int i = 0; i < args[0]; ++i) {
        const unsigned long long u64DataId = NewId();
        IntakeOne(u64DataId, MakeContents(u64DataId, args[1], 0, 1, kText), 1, 0);
      }
      break;
    case Op::IntakeAgain: {
      const unsigned long long u64DataId = PickId(kEver, args[0]);
      IntakeOne(u64DataId, MakeContents(u64DataId, args[1], 2, 2, static_cast<Payload>(args[2])), 1, 0);
      break;
    }
    case Op::Take:
      TakeOne();
      break;
    case Op::Settle:
      SettleOne(PickId(static_cast<Pick>(args[0]), args[1]), static_cast<Outcome>(args[2]));
      break;
    case Op::Save:
      m_model.Save();
      ExpectCode("SaveCacheToDb", {1}, m_pStore->SaveCacheToDb());
      break;
    case Op::Load:
      m_model.Load(ListedSenders());
      ExpectCode("LoadExecData", {1}, m_pStore->LoadExecData());
      break;
    case Op::Sweep:
      m_model.Sweep();
      m_pStore->RepeatExecDataMap();
      break;
    case Op::Restart:
      if (args[0] != 0) {
        m_model.Save();
        ExpectCode("SaveCacheToDb", {1}, m_pStore->SaveCacheToDb());
      }
      m_model.Restart();
      m_u64NextId += kIdsOfALife;
      StartStore();
      break;
    default:
      break;
  }
}

void CStoreDriver::IntakeOne(unsigned long long u64DataId, const Contents& contents, int iSaveStatus, int bForceSave) {
  const int iExpected = m_model.Intake(u64DataId, contents, iSaveStatus, bForceSave != 0);
  const auto text = [](const std::string& strText) { return CPString(std::string_view(strText)); };
  ExpectCode("AddDataAction", {iExpected},
             m_pStore->AddDataAction(bForceSave, u64DataId, contents.iPriv, contents.iMsgType, iSaveStatus,
                                     text(contents.strSender), text(contents.strProduct), text(contents.strCombo),
                                     text(contents.strData)));
}

void CStoreDriver::TakeOne() {
  std::optional<Codes> deleted;
  const std::optional<unsigned long long> expected = m_model.Take(deleted);
  const ExecDataHold pTaken = m_pStore->GetExecData();
  Expect("a record was taken", expected.has_value(), pTaken != nullptr);
  if (pTaken == nullptr) {
    return;
  }
  Expect("taken", *expected, pTaken->u64DataId);
  Expect("marked", deleted.has_value(), pTaken->bIsDel != 0);
  if (deleted.has_value()) {
    ExpectCode("DeleteDataAction", *deleted, m_pStore->DeleteDataAction(pTaken->u64DataId));
  }
}

void CStoreDriver::SettleOne(unsigned long long u64DataId, Outcome outcome) {
  if (outcome == kRetry) {
    ExpectCode("ReAddDataAction", {m_model.QueueAgain(u64DataId)}, m_pStore->ReAddDataAction(u64DataId));
  } else {
    ExpectCode("DeleteDataAction", m_model.Delete(u64DataId), m_pStore->DeleteDataAction(u64DataId));
  }
}

unsigned long long CStoreDriver::PickId(Pick pick, int iNumber) const {
  std::vector<unsigned long long> vecIds;
  if (pick == kEver) {
    vecIds = m_vecIds;
  } else if (pick != kUnknown) {
    for (const auto& [u64DataId, record] : m_model.Records()) {
      if (record.bQueued == (pick == kQueued)) {
        vecIds.push_back(u64DataId);
      }
    }
  }
  return vecIds.empty() ? kUnknownId : vecIds[static_cast<size_t>(iNumber) % vecIds.size()];
}

void CStoreDriver::ConfigureOne(Setting setting, int iValue) {
  m_model.Configure(setting, iValue);
  if (setting == kFreeSpace) {
    CStorageFaults::SetStatvfs([iValue](const char*, struct statvfs* pStat) {
      *pStat = {};
      pStat->f_frsize = 1;
      pStat->f_bfree = kDiskFreeLimit + static_cast<unsigned long long>(iValue);
      return 0;
    });
    return;
  }
  std::ostringstream config;
  config << "[logcache]\n"
         << "dataflowflag = " << m_model.Configured(kFlow) << "\n"
         << "datacountlimit = " << m_model.Configured(kCountLimit) << "\n"
         << "localdatacountlimit = " << m_model.Configured(kLocalCountLimit) << "\n"
         << "datacoverflag = " << m_model.Configured(kCover) << "\n"
         << "logcachesize = " << m_model.Configured(kFileSize) << "\n"
         << "logcachetotalsize = " << m_model.Configured(kTotalSize) << "\n"
         << "diskfreesize = " << kDiskFreeLimit << "\n";
  m_directory.Write("etc/qmlogcache/qmlogcache.conf", config.str());
  Expect("InitCacheData", true, m_pStore->InitCacheData());
}

void CStoreDriver::SpoilOne(const std::string& strSender, Spoiling spoiling) {
  CFileModel& file = m_model.File(strSender);
  if (file.CanBeSpoilt(spoiling)) {
    SpoilFile(FileOf(strSender), spoiling, file.GetState() == CFileModel::State::Sound);
    file.Spoil(spoiling);
  }
}

void CStoreDriver::StartStore() {
  m_pStore.reset();
  m_pStore = std::make_unique<CLogCacheData>();
  Expect("InitCacheData", true, m_pStore->InitCacheData());
}

std::string CStoreDriver::FileOf(const std::string& strSender) const {
  return m_directory.Path("data/qmlogcache/" + strSender + ".db");
}

std::vector<std::string> CStoreDriver::ListedSenders() const {
  constexpr std::string_view kSuffix = ".db";
  std::vector<std::string> vecSenders;
  DIR* pDirectory = opendir(m_directory.Path("bin/../data/qmlogcache/").c_str());
  while (const dirent* pEntry = readdir(pDirectory)) {
    const std::string_view svName(pEntry->d_name);
    if (svName.ends_with(kSuffix)) {
      vecSenders.emplace_back(svName.substr(0, svName.size() - kSuffix.size()));
    }
  }
  closedir(pDirectory);
  return vecSenders;
}

void CStoreDriver::Compare() {
  CLogCacheDataPeer peer(*m_pStore);
  std::ostringstream stat;
  stat << "mapLogCacheFile[" << m_model.FileObjects() << "] mapLogExecData[" << m_model.Records().size()
       << "] LowQueueData[" << m_model.QueueCount(0) << "] NormalQueueData[" << m_model.QueueCount(1)
       << "] HighQueueData[" << m_model.QueueCount(2) << "] RealQueueData[" << m_model.QueueCount(3) << "]";
  Expect("GetDataStat", stat.str(), std::string(m_pStore->GetDataStat().View()));
  for (const auto& [u64DataId, record] : m_model.Records()) {
    CompareRecord(u64DataId, record);
  }
  for (int i = 0; i < kSenders; ++i) {
    CompareFile(SenderName(i), m_model.File(SenderName(i)));
  }
  CompareWarnings();
}

void CStoreDriver::CompareRecord(unsigned long long u64DataId, const ModelRecord& record) {
  const _LogExecData* pRecord = CLogCacheDataPeer(*m_pStore).Find(u64DataId);
  const std::string strWhich = "record " + std::to_string(u64DataId) + " ";
  if (pRecord == nullptr) {
    throw Mismatch(strWhich + "is missing");
  }
  const Contents& contents = record.contents;
  Expect(strWhich + "u64DataId", u64DataId, pRecord->u64DataId);
  Expect(strWhich + "bIsDel", record.bMarked ? 1 : 0, pRecord->bIsDel.Load());
  Expect(strWhich + "StartTime", record.uStartTime, pRecord->StartTime.Load());
  Expect(strWhich + "ReSendCount", record.uResends, pRecord->ReSendCount.Load());
  Expect(strWhich + "iReserved", -1, pRecord->iReserved);
  Expect(strWhich + "u64Reserved", 0ULL, pRecord->u64Reserved);
  Expect(strWhich + "iPriv", contents.iPriv, pRecord->iPriv);
  Expect(strWhich + "iMsgType", contents.iMsgType, pRecord->iMsgType);
  Expect(strWhich + "iDataSaveStatus", record.iSaveStatus, pRecord->iDataSaveStatus.Load());
  Expect(strWhich + "strPluginId", std::string_view(contents.strSender), pRecord->strPluginId.View());
  Expect(strWhich + "strProduct", std::string_view(contents.strProduct), pRecord->strProduct.View());
  Expect(strWhich + "strCombo", std::string_view(contents.strCombo), pRecord->strCombo.View());
  Expect(strWhich + "strData", std::string_view(contents.strData), pRecord->strData.View());
}

void CStoreDriver::CompareFile(const std::string& strSender, const CFileModel& file) {
  using enum CFileModel::State;
  const std::string strFile = FileOf(strSender);
  Expect(strFile + " is there", file.GetState() != Missing, Exists(strFile));
  const std::string strBase = m_directory.Path("data/qmlogcache/" + strSender);
  Expect(strFile + " has a backup", file.Repairs() >= 1, Exists(strBase + "1.db.zip"));
  Expect(strFile + " has an older backup", file.Repairs() >= 2, Exists(strBase + "2.db.zip"));
  if (file.GetState() == Missing) {
    return;
  }
  Expect(strFile + " has bytes", file.GetState() != Empty, std::filesystem::file_size(strFile) != 0);
  if (file.GetState() == NoTable) {
    Expect(strFile + " has a table", false, HasTable(strFile));
  }
  if (file.GetState() != Sound) {
    return;
  }
  const std::map<unsigned long long, Row> mapRows = ReadRows(strFile);
  for (const auto& [u64DataId, row] : mapRows) {
    const std::string strWhich = strFile + " row " + std::to_string(u64DataId) + " ";
    const auto it = file.Rows().find(u64DataId);
    Expect(strWhich + "is expected", true, it != file.Rows().end());
    Expect(strWhich + "priv", it->second.iPriv, row.iPriv);
    Expect(strWhich + "msgtype", it->second.iMsgType, row.iMsgType);
    Expect(strWhich + "datatype", it->second.iDataType, row.iDataType);
    Expect(strWhich + "product", it->second.strProduct, row.strProduct);
    Expect(strWhich + "combo", it->second.strCombo, row.strCombo);
    Expect(strWhich + "data", it->second.strData, row.strData);
  }
  Expect(strFile + " rows", file.Rows().size(), mapRows.size());
}

void CStoreDriver::CompareWarnings() {
  const std::vector<std::string> vecExpected = m_model.TakeWarnings();
  std::vector<LogLine> vecLines = CLogCapture::Lines();
  CLogCapture::Reset();
  std::erase_if(vecLines, [](const LogLine& line) { return !IsStoreWarning(line); });
  Expect("warnings", vecExpected.size(), vecLines.size());
  for (size_t i = 0; i < vecLines.size(); ++i) {
    const LogLine& line = vecLines[i];
    Expect("level", static_cast<int>(kLogWarning), line.iLevel);
    Expect("channel", std::string(kMainChannel), line.strChannel);
    // The model knows no paths: one that it leaves open is the file of the sender.
    std::string strExpected = vecExpected[i];
    if (strExpected.ends_with("strFileName[")) {
      constexpr std::string_view kField = "strPluginId[";
      const size_t uSender = strExpected.find(kField) + kField.size();
      strExpected += m_directory.Path("bin/../data/qmlogcache/") +
                     strExpected.substr(uSender, strExpected.find(']', uSender) - uSender) + ".db]";
    }
    Expect("warning", strExpected, line.strText);
  }
}
