// The points at which a life is killed: where it is killed, on which road, and what must be left.
#ifndef QMLOGCACHE_TESTS_ENDURANCE_KILL_POINTS_H_
#define QMLOGCACHE_TESTS_ENDURANCE_KILL_POINTS_H_

#include <ostream>
#include <string>
#include <vector>

#include "kill_switch.h"

enum class Road {
  Intake,   // records come in and stay
  Long,     // the same, until the log has been folded into the file many times
  Deliver,  // records come in and go out; the hundredth delete compacts the file
  Compact,  // the same, with so much data that the compaction needs a temporary file
  Save,     // written at the stop, in batches
  Load,     // an earlier life's records come back and go out
  Repair,   // the file of one sender is damaged, and there is a backup already
  Header,   // the same, damaged so that SQLite takes the file for no database
  Stop,     // a stop in the middle of deliveries
};

inline constexpr int kAny = -1;

struct KillCase {
  std::string strName;
  Road road = Road::Intake;
  KillPoint point = {};
  int iHeld = kAny;     // records in sound files right after the kill
  int iRepeats = kAny;  // kAny: one at most, and what was unheard
};

inline void PrintTo(const KillCase& killCase, std::ostream* pStream) {
  *pStream << killCase.strName;
}

// What the killed call works on.
inline constexpr char kInsert[] = "insert into logcache";
inline constexpr char kCreate[] = "CREATE TABLE";
inline constexpr char kMove[] = "PRAGMA synchronous=EXTRA;PRAGMA journal_mode=WAL";
inline constexpr char kDelete[] = "delete from logcache";
inline constexpr char kSelect[] = "select * from logcache";
inline constexpr char kCheckpoint[] = "checkpoint";
inline constexpr char kVacuum[] = "VACUUM";
inline constexpr char kExec[] = "sqlite3_exec";
inline constexpr char kFold[] = "sqlite3_wal_checkpoint_v2";

std::vector<KillCase> IntakePoints();
std::vector<KillCase> CreationPoints();
std::vector<KillCase> CheckpointPoints();
std::vector<KillCase> DeletePoints();
std::vector<KillCase> VacuumPoints();
std::vector<KillCase> SavePoints();
std::vector<KillCase> LoadPoints();
std::vector<KillCase> RepairPoints();
std::vector<KillCase> HeaderPoints();
std::vector<KillCase> StopPoints();

#endif  // QMLOGCACHE_TESTS_ENDURANCE_KILL_POINTS_H_
