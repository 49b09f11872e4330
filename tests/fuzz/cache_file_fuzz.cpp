// A sender's cache file as somebody else left it: loaded, written to and deleted from.
//
// The input: eight bytes that say what is done (see Order), then the file itself, its last part perhaps a write-ahead
// log or a rollback journal; or choices from which a database is built (support/database_recipe.h). A second sender's
// sound file lies beside it.
//
// Holds: no file is removed that SQLite finds sound; rows that another connection could read before an insert are there
// after it, unchanged, and after the deletion of another row; in the component's own table an insert that claims
// success stores the record (a key that is taken aside), a file that was replaced holds it, and its deletion takes it
// away; the loader gives exactly the rows of a sound file, decoded, and nothing new when nothing changed; the other
// sender's records are always loaded; no file but cache files, their side files and backups appears, and nothing
// outside the directory changes, not even by way of links that lie in it.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <list>
#include <map>
#include <set>
#include <string>

#include "cachefile/log_cache_file.h"
#include "platform/log.h"
#include "platform/log_channels.h"
#include "platform/status_codes.h"
#include "tests/fuzz/support/cache_directory.h"
#include "tests/fuzz/support/database_recipe.h"
#include "tests/fuzz/support/file_verdict.h"
#include "tests/fuzz/support/fuzz_check.h"

namespace {

constexpr uint32_t kCountLimit = 1000;
constexpr const char* kSender = CCacheDirectory::kSender;
constexpr const char* kOther = CCacheDirectory::kOther;

struct Order {
  bool bCook;
  bool bCover;
  bool bBatch;
  bool bVacuum;
  bool bJournal;     // the side file is a rollback journal
  bool bZeroInData;  // the record's data holds a zero byte
  bool bBackupIsLink;
  bool bStrayEntries;
  size_t uSide;  // bytes of the side file
  unsigned long long u64Id;
  std::string strData;

  explicit Order(const uint8_t* pHead)
      : bCook(pHead[0] % 2 != 0),
        bCover((pHead[1] & 1U) != 0),
        bBatch((pHead[1] & 2U) != 0),
        bVacuum((pHead[1] & 4U) != 0),
        bJournal((pHead[1] & 8U) != 0),
        bZeroInData((pHead[1] & 16U) != 0),
        bBackupIsLink((pHead[1] & 32U) != 0),
        bStrayEntries((pHead[1] & 64U) != 0),
        uSide(pHead[2] | size_t{pHead[3]} << 8),
        u64Id(pHead[4] | static_cast<unsigned long long>(pHead[5]) << 8),
        strData(pHead[6], static_cast<char>(pHead[7])) {
    if (bZeroInData) {
      strData.insert(strData.size() / 2, 1, '\0');
    }
  }
  static constexpr size_t kSize = 8;

  // Of the second record of a batch.
  unsigned long long SecondId() const { return u64Id + 0x10000; }
};

std::map<std::string, std::string> Load(CLogCacheFile& loader) {
  std::list<_CacheExecData> listData;
  FUZZ_CHECK(loader.GetCacheData(listData));
  FUZZ_CHECK(listData.size() <= kCountLimit);
  std::map<std::string, std::string> mapRows;
  for (const _CacheExecData& data : listData) {
    if (data.strPluginId == CPString(kSender)) {
      mapRows[std::to_string(static_cast<int64_t>(data.u64DataId))] = data.strData.c_str();
    } else {
      FUZZ_CHECK(data.strPluginId == CPString(kOther));
      FUZZ_CHECK(data.u64DataId == 1 && data.strData == CPString(CCacheDirectory::kOtherData));
      mapRows[kOther] = data.strData.c_str();
    }
  }
  return mapRows;
}

int Write(CLogCacheFile& file, const Order& order) {
  if (!order.bBatch) {
    return file.AddCacheData(order.u64Id, 1, 2, "product's", "combo", CPString(std::string_view(order.strData)),
                             order.bCover ? 1 : 0);
  }
  file.BatchBegin();
  FUZZ_CHECK(file.BatchAddData(order.u64Id, 1, 2, "product's", "combo", CPString(std::string_view(order.strData))) ==
             kStatusOk);
  FUZZ_CHECK(file.BatchAddData(order.SecondId(), 1, 2, "product", "combo's", "second") == kStatusOk);
  return file.BatchEnd();
}

void CheckAll(const Order& order, const CCacheDirectory& directory) {
  const std::string strId = std::to_string(order.u64Id);
  const Verdict before = Judge(CCacheDirectory::SenderFile(), CCacheDirectory::Scratch());

  CLogCacheFile loader;
  loader.InitFile(kCountLimit, CCacheDirectory::Path(), CPString());
  std::map<std::string, std::string> mapLoaded = Load(loader);
  FUZZ_CHECK(mapLoaded.erase(kOther) == 1);
  directory.Check();
  if (before.bOwnTable && before.bSound) {
    FUZZ_CHECK(mapLoaded == (before.bDecodable ? before.mapData : std::map<std::string, std::string>()));
    FUZZ_CHECK(Load(loader).empty());
  }

  CLogCacheFile file;
  file.InitFile(kCountLimit, CCacheDirectory::Path(), kSender);
  const int iWritten = Write(file, order);
  const bool bReplaced = CCacheDirectory::WasReplaced();
  FUZZ_CHECK(!bReplaced || !before.bSound);
  directory.Check();
  const Verdict written = Judge(CCacheDirectory::SenderFile(), CCacheDirectory::Scratch());
  const bool bCover = order.bCover && !order.bBatch;
  const bool bKeepsRows = before.bSound && before.bReadable;
  if (bKeepsRows) {
    CheckKept(before, written, bCover ? CoveredRows(before) : std::set<std::string>());
  }
  const std::string strSecondId = std::to_string(order.SecondId());
  const bool bIdTaken = before.mapRows.contains(strId) || (order.bBatch && before.mapRows.contains(strSecondId));
  if (iWritten == kStatusOk && (bReplaced || (before.bSound && before.bOwnTable && !bIdTaken))) {
    FUZZ_CHECK(written.bSound && written.bOwnTable);
    FUZZ_CHECK(written.mapRows.contains(strId));
    FUZZ_CHECK(written.mapRows.contains(strSecondId) || !order.bBatch);
    FUZZ_CHECK(!bReplaced || written.mapRows.size() == (order.bBatch ? 2 : 1));
    if (bReplaced || before.bDecodable) {
      CLogCacheFile reader;
      reader.InitFile(kCountLimit, CCacheDirectory::Path(), CPString());
      // A row is read back up to its first zero byte.
      FUZZ_CHECK(Load(reader).at(strId) == order.strData.c_str());
    }
  }

  const int iDeleted = file.DeleteCacheData(order.u64Id);
  directory.Check();
  FUZZ_CHECK(CCacheDirectory::WasReplaced() == bReplaced);
  if (order.bVacuum) {
    CLogCacheDb db;
    static_cast<void>(db.ReleaseDbFileSpace(CCacheDirectory::SenderFile().c_str()));
  }
  const Verdict deleted = Judge(CCacheDirectory::SenderFile(), CCacheDirectory::Scratch());
  if (written.bSound && written.bReadable) {
    CheckKept(written, deleted, {strId});
    FUZZ_CHECK(iDeleted != kStatusOk || !written.bOwnTable || !deleted.mapRows.contains(strId));
  }

  CLogCacheFile secondLoader;
  secondLoader.InitFile(kCountLimit, CCacheDirectory::Path(), CPString());
  FUZZ_CHECK(Load(secondLoader).contains(kOther));
  directory.Check();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*piArguments*/, char*** /*pppszArguments*/) {
  g_hLog = LogInit("qmlogcache");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize) {
  if (uSize < Order::kSize) {
    return 0;
  }
  static auto& directory = *new CCacheDirectory;
  const Order order(pData);
  const char* pszSide = "-wal";
  DatabaseBytes bytes;
  if (order.bCook) {
    FuzzedDataProvider input(pData + Order::kSize, uSize - Order::kSize);
    bytes = CookDatabase(input);
  } else {
    bytes.strFile.assign(reinterpret_cast<const char*>(pData) + Order::kSize, uSize - Order::kSize);
    const size_t uSide = std::min(order.uSide, bytes.strFile.size());
    bytes.strLog = bytes.strFile.substr(bytes.strFile.size() - uSide);
    bytes.strFile.resize(bytes.strFile.size() - uSide);
    pszSide = order.bJournal ? "-journal" : "-wal";
  }
  directory.Fill(bytes, {pszSide, order.bBackupIsLink, order.bStrayEntries});
  CheckAll(order, directory);
  return 0;
}
