// Sequences that are kept: corners picked by hand, and what random runs have found. Each command is checked against the
// model, so a sequence needs no expectations of its own.
#include <gtest/gtest.h>

#include "tests/model/store_driver.h"

namespace {

class StoreSequenceTest : public ::testing::Test {
 protected:
  void Run(const Commands& commands) {
    try {
      m_driver.Run(commands);
    } catch (const std::exception& e) {
      FAIL() << e.what();
    }
  }

  CStoreDriver m_driver;
};

TEST_F(StoreSequenceTest, CoverWithAFailingFirstAttemptDeletesASecondOldestRow) {
  Run({Intake(0), Intake(0), Intake(0), Configure(kCover, 1), Configure(kFileSize, 0), Intake(0, 0, 1, kZeroByte, 1, 0),
       Restart(0), Load(), Take(), Take()});
}

TEST_F(StoreSequenceTest, CoverDeletesTwoRowsForARecordThatIsDropped) {
  Run({Intake(0), Intake(0), Intake(0), Configure(kCover, 1), Configure(kFreeSpace, 0),
       Intake(0, 0, 1, kZeroByteProduct, 1, 0), Save(), Restart(1), Load()});
}

TEST_F(StoreSequenceTest, CoverKeepsTheOldestRowsWhenNothingIsRun) {
  Run({Intake(0), Intake(0), Configure(kCover, 1), Configure(kTotalSize, 0), Fail(kInserts), Intake(0), Fail(kOpening),
       Intake(0), Save()});
}

TEST_F(StoreSequenceTest, ARecordLoadedForMemoryOnlyReturnsAtEachReload) {
  Run({Intake(0), Restart(0), Configure(kFlow, 2), Load(), Take(), Settle(kTaken, 0, kDelivered), Load(), Take(),
       Settle(kTaken, 0, kRejected), Load(), Configure(kFlow, 0), Load(), Take(), Settle(kTaken, 0, kDelivered), Load(),
       Take(), Settle(kTaken, 0, kDelivered), Load()});
}

TEST_F(StoreSequenceTest, ALoadEndsAtItsLimitAcrossFiles) {
  Run({Intake(0), Intake(0), Intake(1), Intake(1), Intake(2), Restart(0), Configure(kLocalCountLimit, 3), Load(),
       Load(), Take(), Settle(kTaken, 0, kDelivered), Load(), Configure(kLocalCountLimit, 0), Load(),
       Configure(kLocalCountLimit, 5), Load()});
}

TEST_F(StoreSequenceTest, ALoadOverTheCountLimitMarksOrRefusesAlsoForKnownIds) {
  Run({Intake(0), Intake(0), Intake(0), Intake(0), Restart(0), Configure(kCountLimit, 1), Load(), Take(),
       Configure(kCover, 1), Load(), Load(), Take(), Take(), Take(), Take()});
}

TEST_F(StoreSequenceTest, NothingIsLoadedWithMoreThanTenThousandInMemory) {
  Run({Intake(0), Restart(0), Configure(kFlow, 2), IntakeMany(10001, 1), Load(), Take(), Settle(kTaken, 0, kDelivered),
       Load()});
}

TEST_F(StoreSequenceTest, ASaveWritesMoreThanOneBatchForEachSender) {
  Run({Configure(kFlow, 1), IntakeMany(1200, 0), IntakeMany(500, 1), IntakeMany(1, 2), Save(), Save(), Restart(0),
       Load()});
}

TEST_F(StoreSequenceTest, OneBadRowDropsItsBatchAndNoOther) {
  Run({Configure(kFlow, 1), IntakeMany(499, 0), Intake(0, 3, 1, kZeroByteProduct, 1, 0), IntakeMany(600, 0),
       Intake(1, 1, 1, kZeroByte, 1, 0), Intake(1), Save(), Save(), Restart(1), Load()});
}

TEST_F(StoreSequenceTest, ABatchThatFindsNoFileStaysPending) {
  Run({Configure(kFlow, 1), IntakeMany(501, 0), Fail(kCreation), Save(), Fail(kOpening), Save(), Save(), Restart(0),
       Load()});
}

TEST_F(StoreSequenceTest, ABatchRepairsADamagedFile) {
  Run({Intake(0), Intake(0), Spoil(0, kDamageRows), Configure(kFlow, 1), IntakeMany(501, 0), Save(), Restart(0),
       Load()});
}

TEST_F(StoreSequenceTest, ADamagedFileIsKeptWhileItCannotBeLookedAt) {
  Run({Intake(0), Spoil(0, kGarbage), Fail(kOpening), Intake(0), Fail(kOpening), Save(), Fail(kInserts), Save(),
       Save()});
}

TEST_F(StoreSequenceTest, EachRepairLeavesABackupAndTheRecordThatFoundTheDamage) {
  Run({Intake(0), Intake(0), Spoil(0, kGarbage), Intake(0), Spoil(0, kDamageRows), Intake(0), Spoil(0, kCutToPage),
       Intake(0), Spoil(0, kCutToHeader), Intake(0), Settle(kQueued, 0, kDelivered), Settle(kQueued, 5, kDelivered),
       Restart(1), Load()});
}

TEST_F(StoreSequenceTest, ALoadNeitherRepairsNorRemovesADamagedFile) {
  Run({Intake(0), Intake(1), Spoil(0, kDamageRows), Spoil(1, kGarbage), Intake(2), Restart(0), Load(), Load(),
       Intake(0), Intake(1), Load()});
}

TEST_F(StoreSequenceTest, AFileCutToNothingIsMadeAgainByWhateverComesNext) {
  Run({Intake(0), Spoil(0, kCutToNothing), Load(), Intake(0), Spoil(0, kCutToNothing), Settle(kQueued, 0, kDelivered),
       Spoil(0, kCutToNothing), Configure(kFileSize, 1), Intake(0), Intake(0)});
}

TEST_F(StoreSequenceTest, AFileWithoutItsTableSwallowsRecords) {
  Run({Intake(0), Spoil(0, kDropTable), Intake(0), Settle(kQueued, 0, kDelivered), Load(), Save(), Restart(1), Load()});
}

TEST_F(StoreSequenceTest, AFileOfOneByteIsMadeAgainByWhateverComesNext) {
  Run({Intake(0), Spoil(0, kCutToByte), Load(), Intake(0), Spoil(0, kCutToByte), Settle(kQueued, 0, kDelivered),
       Spoil(0, kCutToByte), Configure(kFileSize, 1), Intake(0), Take(), Settle(kTaken, 0, kDelivered), Load()});
}

TEST_F(StoreSequenceTest, ARemovedFileTakesItsRowsAndNoRecords) {
  Run({Intake(0), Intake(0), Spoil(0, kRemove), Settle(kQueued, 0, kRetry), Settle(kQueued, 0, kDelivered), Intake(0),
       Restart(1), Load(), Take(), Take()});
}

TEST_F(StoreSequenceTest, ARefusedQueueTakesTheRowAsWell) {
  Run({Fail(kQueueing), Intake(0), Intake(0), Take(), Fail(kQueueing), Settle(kTaken, 0, kRetry), Intake(0),
       Fail(kQueueing), Settle(kQueued, 0, kRetry), Restart(0), Fail(kQueueing), Load(), Load()});
}

TEST_F(StoreSequenceTest, TheSweepGoesOnAfterARecordThatItCannotQueue) {
  Run({Intake(0), Intake(0), Intake(1, 3), Take(), Take(), Take(), Advance(14399), Sweep(), Advance(1), Fail(kQueueing),
       Sweep(), Intake(0), Sweep()});
}

TEST_F(StoreSequenceTest, TheSweepTakesAClockSetBackForANewStart) {
  Run({Intake(0), Take(), Advance(-100), Sweep(), Advance(14399), Sweep(), Advance(1), Sweep(), Take()});
}

TEST_F(StoreSequenceTest, ALateFailureDoesNotQueueASweptRecordTwice) {
  Run({Intake(0, 3), Take(), Advance(14400), Sweep(), Settle(kQueued, 0, kRetry), Settle(kQueued, 0, kRetry), Take(),
       Take(), Settle(kTaken, 0, kDelivered), Settle(kEver, 0, kDelivered), Settle(kEver, 0, kRetry)});
}

TEST_F(StoreSequenceTest, AnEntryOfADeletedRecordDoesNotStandForALaterOneWithItsId) {
  Run({Intake(0), Restart(0), Configure(kFlow, 2), Load(), Settle(kQueued, 0, kDelivered), Load(), Take(), Take()});
}

TEST_F(StoreSequenceTest, MarkedRecordsAreTakenAndDeleted) {
  Run({Configure(kCountLimit, 1), Intake(0), Intake(0), Intake(0), Configure(kCover, 1), Intake(0), Intake(1, 3),
       Take(), Take(), Take(), Take(), Restart(0), Load()});
}

TEST_F(StoreSequenceTest, AMarkSurvivesARetryAndNotARestart) {
  Run({Configure(kCountLimit, 0), Configure(kCover, 1), Intake(0), Take(), Intake(0), Settle(kTaken, 0, kRetry), Take(),
       Intake(0), Intake(0), Restart(0), Load(), Take()});
}

TEST_F(StoreSequenceTest, TheSpaceCheckIsRepeatedForAMinute) {
  Run({Configure(kFreeSpace, 0), Intake(0), Configure(kFreeSpace, 1), Advance(1), Intake(0), Advance(58), Intake(0),
       Advance(1), Intake(0), Configure(kTotalSize, 0), Advance(59), Intake(0), Advance(1), Intake(0),
       Settle(kQueued, 0, kRetry), Save(), Advance(60), Configure(kTotalSize, kNoLimit), Settle(kQueued, 2, kRetry)});
}

TEST_F(StoreSequenceTest, ASaveAsksForNoSpace) {
  Run({Configure(kFreeSpace, -1), Intake(0), Intake(1), Configure(kFileSize, 0), Save(), Intake(0),
       Settle(kQueued, 0, kRetry), Save(), Restart(0), Load()});
}

TEST_F(StoreSequenceTest, AFailedDeletionLeavesARowThatComesBack) {
  Run({Intake(0), Take(), Fail(kDeletes), Settle(kTaken, 0, kDelivered), Load(), Take(), Settle(kTaken, 0, kDelivered),
       Load()});
}

TEST_F(StoreSequenceTest, AnIdWhoseRowIsStillThereIsTakenForWritten) {
  Run({Intake(0), Fail(kDeletes), Settle(kQueued, 0, kDelivered), IntakeAgain(0, 0, kQuotes), Restart(0), Load(),
       Take(), Settle(kTaken, 0, kDelivered), Load()});
}

TEST_F(StoreSequenceTest, EveryPayloadComesBackFromEveryWrite) {
  Commands commands;
  for (const int iFlow : {0, 1}) {
    commands.push_back(Configure(kFlow, iFlow));
    for (int iPayload = 0; iPayload < kPayloads; ++iPayload) {
      commands.push_back(Intake(iPayload % kSenders, iPayload, 1, iPayload, 1, 0));
      commands.push_back(Fail(kPlainInserts));
      commands.push_back(Intake(iPayload % kSenders, iPayload + 10, 2, iPayload, 1, 1));
    }
  }
  commands.insert(commands.end(), {Fail(kPlainInserts), Restart(1), Load()});
  Run(commands);
}

TEST_F(StoreSequenceTest, CompactionsLoseNoRow) {
  Commands commands = {IntakeMany(230, 0), Intake(0, 3, 1, kKibibytes, 1, 0)};
  for (int i = 0; i < 210; ++i) {
    commands.push_back(Settle(kQueued, 1, i % 2 == 0 ? kDelivered : kRejected));
  }
  commands.insert(commands.end(), {Restart(0), Load()});
  Run(commands);
}

}  // namespace
