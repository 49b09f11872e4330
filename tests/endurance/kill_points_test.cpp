// SIGKILL at named points of a record's way through the files. A process of its own lives until the point; then the files
// it leaves are looked at through SQLite alone, the next life delivers what they hold, and the books are balanced.
#include <algorithm>

#include "endurance_fixture.h"
#include "kill_points.h"
#include "left_files.h"
#include "victim.h"

namespace {

class KillTest : public CEnduranceTest {
 protected:
  static constexpr unsigned int kInOldBackup = 30;
  static constexpr unsigned int kInDamagedFile = 30;
  static constexpr unsigned int kInItsLog = 3;

  // Lives until the kill, and books what was told.
  VictimTale Kill(VictimOrders orders) {
    m_clock.Advance(1);
    orders.tStart = m_clock.Now();
    orders.uFirstRecord = static_cast<unsigned int>(m_u64Records) + 1;
    const VictimTale tale = RunVictim(m_prefix.Root(), orders);
    m_u64Records += orders.uRecords;
    for (const std::string& strKey : tale.vecAccepted) {
      m_books.Told(strKey, true);
    }
    for (const std::string& strKey : tale.vecRefused) {
      m_books.Told(strKey, false);
    }
    const size_t uAnswered = tale.vecAccepted.size() + tale.vecRefused.size();
    EXPECT_LE(tale.vecOffered.size(), uAnswered + 1);  // at most one producer waits
    if (tale.vecOffered.size() > uAnswered) {
      m_books.LeftUnanswered(tale.vecOffered.back());
    }
    for (const std::string& strKey : tale.vecDelivered) {
      m_books.Ended(strKey, Ending::Delivered);
    }
    return tale;
  }
  LeftFiles Look() const { return LookAt(m_prefix.CacheDirectory(), m_prefix.Root() + "/looked-at"); }
  // A life of this process that is never connected.
  void FillFile(unsigned int uRecords, size_t uFiller) {
    m_clock.Advance(1);
    m_destination.SetUp(false);
    BeginLife();
    for (unsigned int u = 0; u < uRecords; ++u) {
      EXPECT_TRUE(Produce(kProducer, uFiller));
    }
    m_host.EndLife();
    m_destination.SetUp(true);
  }
  // The life after: everything in the files is delivered, and one new record of each producer with it.
  void LiveOn(const std::set<std::string>& setInFiles) {
    m_clock.Advance(1);
    m_log.Reset();
    BeginConnectedLife();
    ASSERT_TRUE(WaitForLoads(1));  // from here on no journal stands, and the files may be read in place
    EXPECT_TRUE(Produce(kProducer, 10));
    EXPECT_TRUE(Produce(kOtherProducer, 10));
    std::set<std::string> setWanted = setInFiles;
    setWanted.insert("r" + std::to_string(m_u64Records - 1));
    setWanted.insert("r" + std::to_string(m_u64Records));
    const auto guard = std::chrono::steady_clock::now() + kHangGuard;
    while (!AllHaveEnded(setWanted) || !KeysOnDisk().empty()) {
      ASSERT_LT(std::chrono::steady_clock::now(), guard);
      if (!m_destination.Answer()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
    m_host.EndLife();
  }
  // One backup of a file that was damaged before, and a file that is damaged now, with rows that stand in its log alone.
  void PrepareDamage(void (*pfnDamage)(const std::string&)) {
    const std::string strFile = m_prefix.CacheFile(kProducerText);
    FillFile(kInOldBackup, 300);
    FoldLog(strFile);
    DamageSchema(strFile);
    FillFile(kInDamagedFile, 300);
    FoldLog(strFile);
    FillFile(kInItsLog, 10);
    pfnDamage(strFile);
    const LeftFiles left = Look();
    ASSERT_EQ(left.uBackups, 1u);
    ASSERT_EQ(left.setInBackups.size(), size_t{kInOldBackup});
    ASSERT_EQ(left.vecProblems.size(), 1u);
  }
  Balance CloseBooks(const std::string& strWhat, const LeftFiles& left) {
    std::set<std::string> setHeld = left.setInFiles;
    setHeld.insert(left.setInBackups.begin(), left.setInBackups.end());
    const Balance balance = m_books.Close(setHeld);
    std::cout << strWhat << ": " << balance.Text() << std::endl;
    return balance;
  }
  bool AllHaveEnded(const std::set<std::string>& setKeys) {
    return std::all_of(setKeys.begin(), setKeys.end(), [this](const auto& strKey) { return m_books.HasEnded(strKey); });
  }
};

class KillPointTest : public KillTest, public ::testing::WithParamInterface<KillCase> {
 protected:
  static constexpr unsigned int kLoaded = 60;

  // What the road needs before the victim comes.
  VictimOrders Prepare(Road road) {
    switch (road) {
      case Road::Intake:
        return {.uRecords = 80, .uFiller = 300};
      case Road::Long:
        return {.uRecords = 200, .uFiller = 6000};
      case Road::Deliver:
        return {.uRecords = 150, .uFiller = 1500, .uDeliveries = 150};
      case Road::Compact:
        return {.uRecords = 160, .uFiller = 100000, .uDeliveries = 160};
      case Road::Save:
        m_prefix.Configure("dataflowflag = 1\n");
        return {.uRecords = 1100, .uFiller = 100};
      case Road::Load:
        FillFile(kLoaded, 300);
        return {.uRecords = 10, .uFiller = 300, .uDeliveries = kLoaded + 10};
      case Road::Repair:
        PrepareDamage(DamageSchema);
        return {.uRecords = 5, .uFiller = 300};
      case Road::Header:
        PrepareDamage(DamageHeader);
        return {.uRecords = 5, .uFiller = 300};
      case Road::Stop:
        return {.uRecords = 80, .uFiller = 300, .uDeliveries = 40};
    }
    return {};
  }
};

TEST_P(KillPointTest, TheBooksBalance) {
  const KillCase& killCase = GetParam();
  const bool bRepair = killCase.road == Road::Repair || killCase.road == Road::Header;
  VictimOrders orders = Prepare(killCase.road);
  orders.point = killCase.point;
  const VictimTale tale = Kill(orders);
  ASSERT_TRUE(tale.bKilled) << "the point was not reached";
  EXPECT_FALSE(tale.bStopped);
  EXPECT_EQ(tale.vecRefused, std::vector<std::string>{});

  const LeftFiles left = Look();
  if (bRepair) {
    EXPECT_LE(left.vecProblems.size(), 1u);
  } else {
    EXPECT_EQ(left.vecProblems, std::vector<std::string>{});
    EXPECT_EQ(left.uBackups, 0u);
  }
  if (killCase.iHeld != kAny) {
    EXPECT_EQ(left.setInFiles.size(), static_cast<size_t>(killCase.iHeld));
  }
  if (killCase.road == Road::Save) {
    for (const std::string& strKey : tale.vecAccepted) {
      m_books.MayBeDropped(strKey, "not written before the save, as configured");
    }
  }

  ASSERT_NO_FATAL_FAILURE(LiveOn(left.setInFiles));
  if (!bRepair) {
    ExpectNoWarning();
  }
  const LeftFiles end = Look();
  EXPECT_EQ(end.vecProblems, std::vector<std::string>{});
  EXPECT_EQ(end.vecStrays, std::vector<std::string>{});
  EXPECT_EQ(end.setInFiles, std::set<std::string>{});
  EXPECT_EQ(end.uBackups, bRepair ? 2u : 0u);
  EXPECT_EQ(OrphansIn(m_prefix.CacheDirectory()), std::vector<std::string>{});
  const Balance balance = CloseBooks(killCase.strName, end);
  EXPECT_EQ(balance.vecLost, std::vector<std::string>{});
  EXPECT_EQ(balance.vecInvented, std::vector<std::string>{});
  if (killCase.iRepeats == kAny) {
    // The one that was on its way, and those whose results came after the receptions had ended.
    EXPECT_LE(balance.u64Repeats, 1u + tale.uUnheard);
  } else {
    EXPECT_EQ(balance.u64Repeats, static_cast<uint64_t>(killCase.iRepeats));
  }
}

std::string NameOf(const ::testing::TestParamInfo<KillCase>& info) {
  return info.param.strName;
}

INSTANTIATE_TEST_SUITE_P(Intake, KillPointTest, ::testing::ValuesIn(IntakePoints()), NameOf);
INSTANTIATE_TEST_SUITE_P(Creation, KillPointTest, ::testing::ValuesIn(CreationPoints()), NameOf);
INSTANTIATE_TEST_SUITE_P(Checkpoint, KillPointTest, ::testing::ValuesIn(CheckpointPoints()), NameOf);
INSTANTIATE_TEST_SUITE_P(Delete, KillPointTest, ::testing::ValuesIn(DeletePoints()), NameOf);
INSTANTIATE_TEST_SUITE_P(Vacuum, KillPointTest, ::testing::ValuesIn(VacuumPoints()), NameOf);
INSTANTIATE_TEST_SUITE_P(Save, KillPointTest, ::testing::ValuesIn(SavePoints()), NameOf);
INSTANTIATE_TEST_SUITE_P(Load, KillPointTest, ::testing::ValuesIn(LoadPoints()), NameOf);
INSTANTIATE_TEST_SUITE_P(Repair, KillPointTest, ::testing::ValuesIn(RepairPoints()), NameOf);
INSTANTIATE_TEST_SUITE_P(Header, KillPointTest, ::testing::ValuesIn(HeaderPoints()), NameOf);
INSTANTIATE_TEST_SUITE_P(Stop, KillPointTest, ::testing::ValuesIn(StopPoints()), NameOf);

class KillAgainTest : public KillTest {};

TEST_F(KillAgainTest, ElevenLivesInARowThatAreKilled) {
  const std::vector<KillPoint> vecPoints = {
      {Moment::After, "rename", "2.db.zip"},
      {Moment::After, "gzwrite", ""},
      {Moment::Before, "gzclose", ""},
      {Moment::After, "gzclose", ""},
      {Moment::Before, "remove", ".db"},
      {Moment::After, "remove", ".db"},
      {Moment::Halfway, "pwrite", ".db", kCreate},
      {Moment::Before, "unlink", ".db-journal", kInsert},
      {Moment::Halfway, "pwrite", "-wal", kInsert, 3},
      {Moment::Before, kExec, kDelete, "", 2},
      {Moment::After, kExec, kSelect},
  };
  PrepareDamage(DamageSchema);
  for (const KillPoint& point : vecPoints) {
    ASSERT_TRUE(Kill({.uRecords = 5, .uFiller = 300, .uDeliveries = 1000, .point = point}).bKilled) << point.strCall;
  }
  ASSERT_NO_FATAL_FAILURE(LiveOn(Look().setInFiles));
  const LeftFiles end = Look();
  EXPECT_EQ(end.vecProblems, std::vector<std::string>{});
  EXPECT_EQ(end.setInFiles, std::set<std::string>{});
  EXPECT_EQ(end.setInBackups.size(), size_t{kInOldBackup + kInDamagedFile + kInItsLog});
  EXPECT_EQ(OrphansIn(m_prefix.CacheDirectory()), std::vector<std::string>{});
  const Balance balance = CloseBooks("eleven lives, each killed", end);
  EXPECT_EQ(balance.vecLost, std::vector<std::string>{});
  EXPECT_EQ(balance.vecInvented, std::vector<std::string>{});
}

// --- That the books can fail ---

class KillBooksTest : public KillTest {
 protected:
  // Seven records are accepted, r5 of the other producer; the eighth is not written.
  void KillBeforeTheEighthInsert() {
    VictimOrders orders{.uRecords = 20, .uFiller = 100};
    orders.point = {Moment::Before, kExec, kInsert, "", 8};
    const VictimTale tale = Kill(orders);
    ASSERT_TRUE(tale.bKilled);
    ASSERT_EQ(tale.vecAccepted.size(), 7u);
  }
  // An accepted record's id; all of them are of this life.
  std::string WhereIdIs(uint32_t uSequence) const {
    return " where dataid = " + std::to_string(IdOf(uSequence, m_clock.Now()));
  }
};

TEST_F(KillBooksTest, ARecordTakenOutOfItsFileIsLost) {
  ASSERT_NO_FATAL_FAILURE(KillBeforeTheEighthInsert());
  ExecuteOn(m_prefix.CacheFile(kProducerText), "delete from logcache" + WhereIdIs(3));
  ASSERT_NO_FATAL_FAILURE(LiveOn(Look().setInFiles));
  const Balance balance = CloseBooks("control: a record taken out of its file", Look());
  EXPECT_EQ(balance.vecLost, std::vector<std::string>{"r3"});
  EXPECT_EQ(balance.vecInvented, std::vector<std::string>{});
}

TEST_F(KillBooksTest, ARecordThatNobodyHandedInIsInvented) {
  ASSERT_NO_FATAL_FAILURE(KillBeforeTheEighthInsert());
  ExecuteOn(m_prefix.CacheFile(kProducerText),
            "insert into logcache select dataid + 100, priv, msgtype, product, combo, datatype, "
            "replace(data, '<msg=r3;', '<msg=r33;'), null, null from logcache" +
                WhereIdIs(3));
  ASSERT_NO_FATAL_FAILURE(LiveOn(Look().setInFiles));
  const Balance balance = CloseBooks("control: a record that nobody handed in", Look());
  EXPECT_EQ(balance.vecLost, std::vector<std::string>{});
  EXPECT_EQ(balance.vecInvented, std::vector<std::string>{"r33"});
}

TEST_F(KillBooksTest, ARowThatStandsAgainIsARepeat) {
  VictimOrders orders{.uRecords = 20, .uFiller = 100, .uDeliveries = 20};
  orders.point = {Moment::After, kExec, kDelete, "", 7};
  ASSERT_TRUE(Kill(orders).bKilled);
  ExecuteOn(m_prefix.CacheFile(kProducerText),
            "update logcache set data = replace(data, '<msg=r9;', '<msg=r1;')" + WhereIdIs(9));
  ASSERT_NO_FATAL_FAILURE(LiveOn(Look().setInFiles));
  const Balance balance = CloseBooks("control: a delivered record stands again", Look());
  EXPECT_EQ(balance.u64Repeats, 1u);
  EXPECT_EQ(balance.vecLost, std::vector<std::string>{"r9"});
}

TEST_F(KillBooksTest, AFileThatIsNotSoundIsSeen) {
  ASSERT_NO_FATAL_FAILURE(KillBeforeTheEighthInsert());
  EXPECT_EQ(Look().vecProblems, std::vector<std::string>{});
  FoldLog(m_prefix.CacheFile(kProducerText));
  DamageSchema(m_prefix.CacheFile(kProducerText));
  EXPECT_EQ(Look().vecProblems.size(), 1u);
  EXPECT_EQ(Look().setInFiles, std::set<std::string>{"r5"});
}

TEST_F(KillBooksTest, AVictimThatMeetsNoPointComesToItsEnd) {
  VictimOrders orders{.uRecords = 7, .uFiller = 100};
  orders.point = {Moment::Before, kExec, kInsert, "", 8};
  const VictimTale tale = Kill(orders);
  EXPECT_FALSE(tale.bKilled);
  EXPECT_TRUE(tale.bStopped);
  EXPECT_EQ(tale.vecAccepted.size(), 7u);
  EXPECT_EQ(Look().setInFiles.size(), 7u);
}

}  // namespace

int main(int iArguments, char** ppArguments) {
  LiveAsVictim(iArguments, ppArguments);
  testing::InitGoogleTest(&iArguments, ppArguments);
  return RUN_ALL_TESTS();
}
