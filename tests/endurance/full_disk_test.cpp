// A file system of the test's own that fills up. The program runs in a mount namespace of its own, where it may mount.
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "endurance_fixture.h"

namespace {

constexpr char kStopped[] = "*qmlogcache CLogCacheMon::CheckCacheSize CheckDiskFreeSpaceValid no space stop cache ";
constexpr char kResumed[] = "qmlogcache CLogCacheMon::CheckCacheSize resume cache ";
constexpr char kInsertFailed[] = "*qmlogcache CLogCacheDb::AddDbData sqlite3_exec_sql error u64DataId[";
constexpr char kDeleteFailed[] = "*qmlogcache CLogCacheDb::DeleteDbData ";
constexpr time_t kCheckSeconds = 60;
constexpr size_t kRecordBytes = 16000;

class FullDiskTest : public CEnduranceTest {
 protected:
  ~FullDiskTest() override {
    m_host.EndLife();
    if (m_bMounted) {
      umount2(Directory().c_str(), MNT_DETACH);
    }
  }
  std::string Directory() const { return m_prefix.Root() + "/data/qmlogcache"; }
  void Mount(const std::string& strSize) {
    mkdir(Directory().c_str(), 0755);
    m_bMounted = mount("none", Directory().c_str(), "tmpfs", 0, ("mode=0755,size=" + strSize).c_str()) == 0;
    ASSERT_TRUE(m_bMounted) << "tmpfs cannot be mounted: " << strerror(errno);
  }
  void Resize(const std::string& strSize) {
    ASSERT_EQ(0, mount("none", Directory().c_str(), "tmpfs", MS_REMOUNT, ("mode=0755,size=" + strSize).c_str()))
        << strerror(errno);
  }
  // Takes what space there is, to the last byte.
  void FillUp() const {
    std::ofstream file(Directory() + "/ballast", std::ios::binary);
    const std::string strBlock(4096, 'b');
    while (file.write(strBlock.data(), static_cast<std::streamsize>(strBlock.size())).flush()) {
    }
  }
  bool HasBackup() const {
    const std::vector<std::string> vecNames = NamesIn(m_prefix.CacheDirectory());
    return std::any_of(vecNames.begin(), vecNames.end(), [](const auto& strName) { return strName.ends_with(".zip"); });
  }

 private:
  bool m_bMounted = false;
};

TEST_F(FullDiskTest, BelowTheFloorCachingStopsOnceDeliveriesGoOnAndCachingResumes) {
  Mount("8m");
  m_prefix.Configure("diskfreesize = 4194304\n");
  m_destination.SetUp(false);
  BeginLife();
  for (int i = 0; i < 400; ++i) {
    ASSERT_TRUE(Produce(kProducer, kRecordBytes));
    m_clock.Advance(kCheckSeconds);
  }
  EXPECT_EQ(m_log.Count(kStopped), 1u);
  const size_t uCached = Rows().size();
  EXPECT_GT(uCached, 200u);
  EXPECT_LT(uCached, 300u);

  m_destination.SetUp(true);
  ASSERT_TRUE(AnswerUntilAllHaveEnded());
  EXPECT_LT(Rows().size(), 100u);  // and every hundredth delete gave the space back
  m_clock.Advance(kCheckSeconds);
  m_destination.SetUp(false);
  ASSERT_TRUE(Produce(kProducer, kRecordBytes));
  EXPECT_EQ(m_log.Count(kResumed), 1u);
  EXPECT_EQ(m_log.Count(kStopped), 1u);
  m_host.EndLife();
  EXPECT_FALSE(HasBackup());
  ExpectBooksInOrder("free space below its floor", KeysOnDisk());
  EXPECT_EQ(KeysOnDisk(), std::set<std::string>{"r401"});
}

TEST_F(FullDiskTest, WithoutASingleByteNothingIsTakenForDamagedAndEveryRecordIsSent) {
  Mount("8m");
  m_prefix.Configure("diskfreesize = 0\n");
  m_destination.SetUp(false);
  BeginLife();
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(Produce(kProducer, kRecordBytes));
  }
  FillUp();
  for (int i = 0; i < 100; ++i) {
    m_clock.Advance(kCheckSeconds);
    ASSERT_TRUE(Produce(kProducer, kRecordBytes));
  }
  const size_t uBefore = Rows().size();
  EXPECT_GE(uBefore, 100u);
  EXPECT_LT(uBefore, 200u);
  m_destination.SetUp(true);
  ASSERT_TRUE(AnswerUntilAllHaveEnded());
  m_host.EndLife();
  m_destination.Forget();  // where a night passed over a slow settlement, repeats are still on their way
  EXPECT_FALSE(HasBackup());
  ExpectBooksInOrder("a disk without a free byte", KeysOnDisk());

  // Rows that could not be deleted come back once.
  const std::set<std::string> setLeft = KeysOnDisk();
  const size_t uFailed = m_log.Count(kDeleteFailed);
  std::cout << "rows left " << setLeft.size() << ", failed deletes " << uFailed << std::endl;
  EXPECT_LE(setLeft.size(), uFailed);
  Resize("16m");
  const uint64_t u64RepeatsBefore = m_books.Close(setLeft).u64Repeats;
  m_clock.Advance(1);
  BeginConnectedLife();
  const auto guard = std::chrono::steady_clock::now() + kHangGuard;
  while (!Rows().empty() && std::chrono::steady_clock::now() < guard) {
    m_destination.Answer();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_TRUE(Rows().empty());
  m_host.EndLife();
  EXPECT_EQ(m_books.Close({}).u64Repeats, u64RepeatsBefore + setLeft.size());
}

TEST_F(FullDiskTest, WhatAStopOnAFullDiskCannotWriteIsCountedByName) {
  Mount("4m");
  m_prefix.Configure("diskfreesize = 0\n");
  m_destination.SetUp(false);
  BeginLife();
  ASSERT_TRUE(Produce(kProducer, kRecordBytes));
  FillUp();
  for (int i = 0; i < 100; ++i) {
    m_clock.Advance(kCheckSeconds);
    ASSERT_TRUE(Produce(kProducer, kRecordBytes));
  }
  m_host.EndLife();
  const std::set<std::string> setKept = KeysOnDisk();
  EXPECT_TRUE(setKept.contains("r1"));
  // Each is named by a level-3 line.
  for (const LogLine& line : m_log.Lines(kInsertFailed)) {
    EXPECT_EQ(line.iLevel, 3);
    const uint64_t u64Sequence = std::stoull("0" + LogField(line.strText, "u64DataId"), nullptr, 16) & 0xffffffff;
    m_books.MayBeDropped("r" + std::to_string(u64Sequence), "a write that failed and was logged");
  }
  for (const LogLine& line : m_log.Lines("*qmlogcache InsertExecData Error ")) {
    const uint64_t u64Sequence = std::stoull("0" + LogField(line.strText, "u64DataId"), nullptr, 16) & 0xffffffff;
    m_books.MayBeDropped("r" + std::to_string(u64Sequence), "a write that failed and was logged");
  }
  EXPECT_FALSE(HasBackup());
  ExpectBooksInOrder("a stop on a full disk", setKept);
}

}  // namespace
