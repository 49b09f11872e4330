#include "kill_points.h"

namespace {

// The same point at several occurrences; the number ends the name.
std::vector<KillCase> At(const KillCase& killCase, const std::vector<unsigned int>& vecOccurrences) {
  std::vector<KillCase> vecCases;
  for (const unsigned int uOccurrence : vecOccurrences) {
    vecCases.push_back(killCase);
    vecCases.back().strName += std::to_string(uOccurrence);
    vecCases.back().point.uOccurrence = uOccurrence;
  }
  return vecCases;
}

std::vector<KillCase> Join(const std::vector<std::vector<KillCase>>& vecLists) {
  std::vector<KillCase> vecCases;
  for (const std::vector<KillCase>& vecList : vecLists) {
    vecCases.insert(vecCases.end(), vecList.begin(), vecList.end());
  }
  return vecCases;
}

// How many records a point leaves in the files: its occurrence and this many more.
std::vector<KillCase> Holding(std::vector<KillCase> vecCases, int iMore) {
  for (KillCase& killCase : vecCases) {
    killCase.iHeld = static_cast<int>(killCase.point.uOccurrence) + iMore;
  }
  return vecCases;
}

std::vector<KillCase> Repeating(std::vector<KillCase> vecCases, int iRepeats) {
  for (KillCase& killCase : vecCases) {
    killCase.iRepeats = iRepeats;
  }
  return vecCases;
}

}  // namespace

std::vector<KillCase> IntakePoints() {
  constexpr Road kRoad = Road::Intake;
  return Repeating(Join({
                       Holding(At({"BeforeInsert", kRoad, {Moment::Before, kExec, kInsert}}, {1, 2, 7, 64}), -1),
                       Holding(At({"AfterInsert", kRoad, {Moment::After, kExec, kInsert}}, {1, 2, 7, 64}), 0),
                       Holding(At({"BeforeReply", kRoad, {Moment::Before, "reply", "success"}}, {1, 2, 7, 64}), 0),
                       At({"HalfALogWrite", kRoad, {Moment::Halfway, "pwrite", "-wal", kInsert}}, {1, 2, 7, 64}),
                       At({"BeforeLogSync", kRoad, {Moment::Before, "fdatasync", "-wal", kInsert}}, {1, 7, 64}),
                       At({"AfterLogSync", kRoad, {Moment::After, "fdatasync", "-wal", kInsert}}, {1, 7, 64}),
                   }),
                   0);
}

std::vector<KillCase> CreationPoints() {
  constexpr Road kRoad = Road::Intake;
  return Repeating(
      Join({
          At({"NewFileBesideOldSideFiles", kRoad, {Moment::Before, "unlink", ".db-journal"}, 0}, {1}),
          At({"BeforeTable", kRoad, {Moment::Before, kExec, kCreate}}, {1, 2}),
          At({"HalfATable", kRoad, {Moment::Halfway, "pwrite", ".db", kCreate}}, {1, 2}),
          At({"HalfTheTablesJournal", kRoad, {Moment::Halfway, "pwrite", ".db-journal", kCreate}, 0}, {1}),
          At({"BeforeTheTablesCommit", kRoad, {Moment::Before, "unlink", ".db-journal", kCreate}, 0}, {1}),
          At({"AfterTable", kRoad, {Moment::After, kExec, kCreate}}, {1, 2}),
          At({"HalfAFirstRow", kRoad, {Moment::Halfway, "pwrite", ".db", kInsert}, 0}, {1}),
          At({"BeforeAFirstRowsCommit", kRoad, {Moment::Before, "unlink", ".db-journal", kInsert}, 0}, {1}),
          At({"AfterAFirstRowsCommit", kRoad, {Moment::After, "unlink", ".db-journal", kInsert}, 1}, {1}),
          At({"BeforeMoveToLog", kRoad, {Moment::Before, kExec, kMove}}, {1, 2}),
          At({"HalfAMoveToLog", kRoad, {Moment::Halfway, "pwrite", ".db", kMove}}, {1, 2}),
          At({"BeforeTheMovesCommit", kRoad, {Moment::Before, "unlink", ".db-journal", kMove}}, {1, 2}),
          At({"AfterMoveToLog", kRoad, {Moment::After, kExec, kMove}}, {1, 2}),
      }),
      0);
}

std::vector<KillCase> CheckpointPoints() {
  constexpr Road kRoad = Road::Long;
  return Repeating(Join({
                       At({"BeforeCheckpoint", kRoad, {Moment::Before, kFold, ""}}, {1, 2, 7}),
                       At({"BeforeCheckpointsLogSync", kRoad, {Moment::Before, "fdatasync", "-wal", kCheckpoint}}, {1}),
                       At({"HalfAPage", kRoad, {Moment::Halfway, "pwrite", ".db", kCheckpoint}}, {1, 2, 7, 64, 250}),
                       At({"BeforeFileSync", kRoad, {Moment::Before, "fdatasync", ".db", kCheckpoint}}, {1, 2, 7}),
                       At({"BeforeLogIsCut", kRoad, {Moment::Before, "ftruncate", "-wal", kCheckpoint}}, {1, 2, 7}),
                       At({"AfterLogIsCut", kRoad, {Moment::After, "ftruncate", "-wal", kCheckpoint}}, {1, 2, 7}),
                       At({"AfterCheckpoint", kRoad, {Moment::After, kFold, ""}}, {1, 2, 7}),
                   }),
                   0);
}

std::vector<KillCase> DeletePoints() {
  constexpr Road kRoad = Road::Deliver;
  return Join({
      Repeating(At({"BeforeDelete", kRoad, {Moment::Before, kExec, kDelete}}, {1, 2, 7, 64}), 1),
      Repeating(At({"HalfADelete", kRoad, {Moment::Halfway, "pwrite", "-wal", kDelete}}, {1, 7, 64}), 1),
      Repeating(At({"AfterDelete", kRoad, {Moment::After, kExec, kDelete}}, {1, 2, 7, 64}), 0),
  });
}

std::vector<KillCase> VacuumPoints() {
  constexpr Road kRoad = Road::Deliver;
  constexpr char kTemporary[] = " (deleted)";
  return Repeating(
      Join({
          At({"BeforeVacuum", kRoad, {Moment::Before, kExec, kVacuum}}, {1}),
          At({"HalfAVacuumsTemporaryFile", Road::Compact, {Moment::Halfway, "pwrite", kTemporary, kVacuum}}, {1}),
          At({"HalfAVacuumsLogWrite", kRoad, {Moment::Halfway, "pwrite", "-wal", kVacuum}}, {1, 2, 7, 14}),
          At({"BeforeVacuumsSync", kRoad, {Moment::Before, "fdatasync", "-wal", kVacuum}}, {1}),
          At({"AfterVacuum", kRoad, {Moment::After, kExec, kVacuum}}, {1}),
          At({"BeforeFileIsCut", kRoad, {Moment::Before, "ftruncate", ".db", kCheckpoint}}, {1}),
          At({"AfterFileIsCut", kRoad, {Moment::After, "ftruncate", ".db", kCheckpoint}}, {1}),
      }),
      0);
}

// Two senders: a full batch of the one, then, at the save's end, its rest of 380 and the other's 220.
std::vector<KillCase> SavePoints() {
  constexpr Road kRoad = Road::Save;
  return Repeating(Join({
                       {{"BeforeBatch1", kRoad, {Moment::Before, kExec, kInsert, "", 1}, 0}},
                       {{"BeforeBatch2", kRoad, {Moment::Before, kExec, kInsert, "", 2}, 500}},
                       {{"BeforeBatch3", kRoad, {Moment::Before, kExec, kInsert, "", 3}, 880}},
                       {{"HalfOfBatch1", kRoad, {Moment::Halfway, "pwrite", ".db", kInsert, 7}, 0}},
                       {{"HalfOfBatch2", kRoad, {Moment::Halfway, "pwrite", "-wal", kInsert, 20}, 500}},
                       {{"AfterBatch1", kRoad, {Moment::After, kExec, kInsert, "", 1}, 500}},
                       {{"AfterBatch2", kRoad, {Moment::After, kExec, kInsert, "", 2}, 880}},
                       {{"AfterBatch3", kRoad, {Moment::After, kExec, kInsert, "", 3}, 1100}},
                   }),
                   0);
}

std::vector<KillCase> LoadPoints() {
  constexpr Road kRoad = Road::Load;
  constexpr char kRead[] = "qmlogcache CLogCacheData::LoadExecData GetCacheData cacheDataList[";
  constexpr char kFiled[] = "qmlogcache CLogCacheData::LoadExecData LowQueueData[";
  return Join({
      At({"BeforeRead", kRoad, {Moment::Before, kExec, kSelect}}, {1}),
      At({"AfterRow", kRoad, {Moment::After, "row", ""}}, {1, 7, 60}),
      At({"AfterRead", kRoad, {Moment::After, kExec, kSelect}}, {1}),
      At({"BeforeFiling", kRoad, {Moment::Before, "log", kRead}}, {1}),
      At({"AfterFiling", kRoad, {Moment::Before, "log", kFiled}}, {1}),
  });
}

std::vector<KillCase> RepairPoints() {
  constexpr Road kRoad = Road::Repair;
  return Repeating(Join({
                       {{"BeforeOldBackupMoves", kRoad, {Moment::Before, "rename", "2.db.zip"}}},
                       {{"AfterOldBackupMoved", kRoad, {Moment::After, "rename", "2.db.zip"}}},
                       {{"BeforeDamagedFilesLog", kRoad, {Moment::Before, kFold, ""}}},
                       {{"HalfADamagedFilesLog", kRoad, {Moment::Halfway, "pwrite", ".db", kCheckpoint}}},
                       {{"AfterDamagedFilesLog", kRoad, {Moment::After, kFold, ""}}},
                       {{"BeforeBackupIsMade", kRoad, {Moment::Before, "gzopen", ""}}},
                       {{"AfterBackupIsMade", kRoad, {Moment::After, "gzopen", ""}}},
                       {{"AfterBackupsFirstBlock", kRoad, {Moment::After, "gzwrite", ""}}},
                       {{"BeforeBackupIsClosed", kRoad, {Moment::Before, "gzclose", ""}}},
                       {{"AfterBackupIsClosed", kRoad, {Moment::After, "gzclose", ""}}},
                       {{"AfterBackupsSync", kRoad, {Moment::After, "fsync", "1.db.zip"}}},
                       {{"BeforeDamagedFileGoes", kRoad, {Moment::Before, "remove", ".db"}}},
                       {{"AfterDamagedFileWent", kRoad, {Moment::After, "remove", ".db"}}},
                       {{"BeforeLogGoes", kRoad, {Moment::Before, "unlink", "-wal"}}},
                       {{"AfterLogWent", kRoad, {Moment::After, "unlink", "-wal"}}},
                       {{"BeforeIndexGoes", kRoad, {Moment::Before, "unlink", "-shm"}}},
                       {{"AfterIndexWent", kRoad, {Moment::After, "unlink", "-shm"}}},
                       {{"BeforeRepairedFilesTable", kRoad, {Moment::Before, kExec, kCreate}}},
                       {{"BeforeRepairedFilesRow", kRoad, {Moment::Before, kExec, kInsert}, 0}},
                       {{"AfterRepairedFilesRow", kRoad, {Moment::After, kExec, kInsert}, 1}},
                   }),
                   0);
}

std::vector<KillCase> HeaderPoints() {
  constexpr Road kRoad = Road::Header;
  return Repeating(Join({
                       {{"BeforeBackupIsClosed", kRoad, {Moment::Before, "gzclose", ""}}},
                       {{"BeforeDamagedFileGoes", kRoad, {Moment::Before, "remove", ".db"}}},
                       {{"AfterDamagedFileWent", kRoad, {Moment::After, "remove", ".db"}}},
                       {{"BeforeLogGoes", kRoad, {Moment::Before, "unlink", "-wal"}}},
                       {{"AfterLogWent", kRoad, {Moment::After, "unlink", "-wal"}}},
                       {{"BeforeRepairedFilesTable", kRoad, {Moment::Before, kExec, kCreate}}},
                       {{"AfterRepairedFilesRow", kRoad, {Moment::After, kExec, kInsert}, 1}},
                   }),
                   0);
}

std::vector<KillCase> StopPoints() {
  std::vector<KillCase> vecCases;
  for (const Road road : {Road::Intake, Road::Stop}) {
    const std::string strName = road == Road::Stop ? "Busy" : "Idle";
    for (const auto& [pszName, pszLine] : {std::pair{"StopBegins", "qmlogcache CLogCacheMgr::Stop Begin"},
                                           {"SaveBegins", "qmlogcache CLogCacheMgr::SaveCacheToDb Begin"},
                                           {"SaveEnds", "qmlogcache CLogCacheMgr::SaveCacheToDb End"},
                                           {"StopEnds", "qmlogcache CLogCacheMgr::Stop End"}}) {
      vecCases.push_back({strName + pszName, road, {Moment::After, "log", pszLine}, road == Road::Stop ? kAny : 80});
    }
  }
  return vecCases;
}
