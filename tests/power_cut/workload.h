// The steps of a working host: what senders, the loader, an operator and a failing disk do to cache files.
#ifndef QMLOGCACHE_POWER_CUT_WORKLOAD_H_
#define QMLOGCACHE_POWER_CUT_WORKLOAD_H_

#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/power_cut/record_stores.h"

struct sqlite3;

// What Damage writes over the file's beginning.
inline constexpr size_t kDamagedBytes = 100;
inline constexpr char kDamagedByte = '\xEE';

struct Step {
  enum class Kind {
    Insert,
    Cover,  // an insert for which the oldest row makes room
    Delete,
    Batch,
    Compact,
    Load,           // of all files; they must hold just what they should
    Shell,          // an operator's shell reads the file and is closed, and with it goes the log
    ShellStays,     // is opened and left open
    ShellGoes,      // is closed
    ShellRollback,  // puts the file back to a rollback journal
    Damage,         // the file's beginning is overwritten, then a record is inserted
  };
  Kind kind = Kind::Insert;
  int iFile = 0;
  uint64_t u64DataId = 0;
  std::vector<Row> vecRows;
  std::vector<Commit> vecCommits;  // what it comes to, in order
};

// For a history of steps.
char Letter(Step::Kind kind);

// What a file is before the first step.
struct FileState {
  Rows rows;
  bool bMayBeDamaged = false;  // to be repaired by the next insert
  bool bMayReturn = false;     // see MakeWorkload
};

struct WorkloadKind {
  bool bOperatorAndDamage = true;  // all kinds of steps; else only what any store can do
  size_t uSteps = 0;
};

// Data ids come from u64NextId on.
//
// What a cut took from the end of an unsynced log may still stand there behind a gap. A commit that fills the gap with
// the very bytes that were lost, as the same delete on the same rows does, makes SQLite take the rest for valid again:
// the lost commits return, whole and in their order. That harms nobody, but no book could tell what is expected; so
// the first step on such a file is an insert, whose bytes never were there before. (A cut that keeps just the sectors
// which the insert shares with what was lost still brings it back, and takes the insert.)
std::vector<Step> MakeWorkload(const WorkloadKind& kind, const std::vector<FileState>& vecStates, uint64_t& u64NextId,
                               std::mt19937_64& random);

// Runs steps in the process of the store.
class CWorker {
 public:
  CWorker(const std::string& strDirectory, IRecordStore& store, const std::vector<FileState>& vecStates);
  // What went wrong; empty when the step was acknowledged.
  [[nodiscard]] std::string Run(const Step& step);

 private:
  std::string Path(int iFile) const { return m_strDirectory + "/" + DatabaseName(iFile); }
  std::string CompareAll();
  bool OpenShell(int iFile);
  bool CloseShell(int iFile);

  std::string m_strDirectory;
  IRecordStore& m_store;
  std::vector<Rows> m_vecExpected;
  std::array<sqlite3*, kFiles> m_shells{};
};

#endif  // QMLOGCACHE_POWER_CUT_WORKLOAD_H_
