#include "tests/power_cut/power_cuts.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <optional>
#include <random>
#include <set>
#include <sstream>

#include "tests/power_cut/left_file.h"
#include "tests/power_cut/simulated_disk.h"
#include "tests/power_cut/store_life.h"
#include "tests/power_cut/whole_file.h"
#include "tests/unit/platform/temporary_directory.h"

namespace {

constexpr size_t kMostFaultsTold = 12;

size_t Between(std::mt19937_64& random, size_t uLow, size_t uHigh) {
  return std::uniform_int_distribution<size_t>(uLow, uHigh)(random);
}

// FNV-1a, 64 bits: goes on from one text to the next.
void AddToDigest(uint64_t& u64Digest, const std::string& strText) {
  constexpr uint64_t kPrime = 1099511628211U;
  for (const char c : strText) {
    u64Digest = (u64Digest ^ static_cast<unsigned char>(c)) * kPrime;
  }
}

struct FileBook {
  CRecordBook book;
  bool bMayBeDamaged = false;
  bool bIsDamaged = false;    // for sure: the next record puts it away
  std::vector<Rows> vecLost;  // states that a cut was permitted to take and that may return, see MakeWorkload
  bool bPutAway = false;      // the newest damaged file was, so that its backup has to be there
  std::string strHistory;     // a letter for each step; "?" after the one under way, "|" a power cut, "/" a kill
};

// Lives of one directory, from empty to the last cut.
class CChain {
 public:
  CChain(const PowerCutOptions& options, uint64_t u64Seed, PowerCutFigures& figures)
      : m_options(options), m_u64Seed(u64Seed), m_random(u64Seed), m_figures(figures), m_vecFiles(kFiles) {
    m_strLive = NewDirectory();
  }

  void Run() {
    bool bGoesOn = true;
    for (size_t uCutsLeft = Between(m_random, 1, 5); uCutsLeft > 0 && bGoesOn;) {
      const End end = Between(m_random, 0, 3) == 0 ? End::Kill : End::PowerCut;
      uCutsLeft -= end == End::PowerCut ? 1 : 0;
      bGoesOn = Live(AnyLife(end));
    }
    if (bGoesOn) {
      Live(LastLife());
    }
  }

 private:
  std::string NewDirectory() {
    const std::string strPath = m_directory.Path(std::to_string(++m_uDirectories));
    std::filesystem::create_directory(strPath);
    return std::filesystem::canonical(strPath).string();  // as the component opens it
  }

  std::vector<FileState> States() const {
    std::vector<FileState> vecStates;
    for (const FileBook& file : m_vecFiles) {
      vecStates.push_back({file.book.Newest(), file.bMayBeDamaged, !file.vecLost.empty()});
    }
    return vecStates;
  }

  Life AnyLife(End end) {
    constexpr double kMostCalls = 2500;
    Life life;
    life.end = end;
    const double dShare = std::uniform_real_distribution<double>(0, 1)(m_random);
    life.u64LastCall = static_cast<uint64_t>(std::exp(dShare * std::log(kMostCalls)));
    life.vecSteps =
        MakeWorkload({m_options.bOperatorAndDamage, Between(m_random, 2, 100)}, States(), m_u64NextId, m_random);
    return life;
  }

  // Everything still works: a record for every file, and the power goes with nothing under way.
  Life LastLife() {
    Life life;
    life.vecSteps.resize(1);
    life.vecSteps[0].kind = Step::Kind::Load;
    for (int i = 0; i < kFiles; ++i) {
      Step step;
      step.iFile = i;
      step.vecRows = {{
          m_u64NextId,
          1,
          2,
          "p",
          "c",
          "the last one",
      }};
      ++m_u64NextId;
      step.vecCommits = {{false, {}, step.vecRows}};
      life.vecSteps.push_back(step);
    }
    life.vecSteps.push_back(life.vecSteps[0]);
    return life;
  }

  // False when there is no point in going on.
  bool Live(const Life& life) {
    const LifePlace place{m_strLive, m_bDiskGoesOn, m_directory.Path("disk"), NewDirectory(), m_random()};
    ++(life.end == End::PowerCut ? m_figures.uCuts : m_figures.uKills);
    const LifeReport report = RunLife(life, place, m_options.store, States());
    m_figures.u64Calls += report.u64Calls;
    WriteDown(life, report.uAcknowledged);
    if (!report.bEnded) {
      std::string strHistories;
      for (const FileBook& file : m_vecFiles) {
        strHistories += " " + file.strHistory;
      }
      Fault(m_figures.uRefused, "after" + strHistories + ": " + report.strProblem);
      return false;
    }
    m_bDiskGoesOn = life.end == End::Kill;
    if (life.end == End::PowerCut) {
      std::filesystem::remove_all(m_strLive);
      m_strLive = place.strTarget;
    }
    return Look(life, report.uAcknowledged);
  }

  // What was begun and what was acknowledged.
  void WriteDown(const Life& life, size_t uAcknowledged) {
    m_figures.uSteps += uAcknowledged;
    for (size_t i = 0; i < std::min(uAcknowledged + 1, life.vecSteps.size()); ++i) {
      const Step& step = life.vecSteps[i];
      FileBook& file = m_vecFiles[static_cast<size_t>(step.iFile)];
      file.strHistory += Letter(step.kind);
      for (const Commit& commit : step.vecCommits) {
        file.book.Begin(commit);
      }
      if (i == uAcknowledged) {
        file.strHistory += '?';
        file.bMayBeDamaged = file.bMayBeDamaged || step.kind == Step::Kind::Damage;
        file.bPutAway = file.bPutAway && !file.bMayBeDamaged;
        break;
      }
      m_figures.uRecords += step.vecRows.size();
      if (!step.vecCommits.empty()) {
        file.book.Acknowledge();
        file.bPutAway = step.kind == Step::Kind::Damage || file.bIsDamaged || (file.bPutAway && !file.bMayBeDamaged);
        file.bMayBeDamaged = false;
        file.bIsDamaged = false;
      }
      switch (step.kind) {
        case Step::Kind::Compact:
        case Step::Kind::Shell:
        case Step::Kind::ShellRollback:
          file.book.MakeDurable();
          break;
        case Step::Kind::Damage:
          file.book.MakeDurable(1);  // the new file is there, whatever becomes of its first record
          break;
        default:
          break;
      }
    }
    for (FileBook& file : m_vecFiles) {
      file.strHistory += life.end == End::Kill ? '/' : '|';
    }
  }

  // Compares what is left, in a copy, since looking changes it. False when the chain ends.
  bool Look(const Life& life, size_t uAcknowledged) {
    const std::string strCopy = NewDirectory();
    std::set<std::string> setNames;
    for (const auto& entry : std::filesystem::directory_iterator(m_strLive)) {
      setNames.insert(entry.path().filename().string());
    }
    for (const std::string& strName : setNames) {
      // A killed process leaves shared memory that the next one must not trust either.
      const std::string strBytes = ReadAll(m_strLive + "/" + strName);
      WriteAll(strCopy + "/" + strName, strBytes);
      if (!IsSharedMemoryName(strName)) {
        AddToDigest(m_figures.u64Digest, strName + strBytes);
      }
    }
    const Step* pUnderWay = uAcknowledged < life.vecSteps.size() ? &life.vecSteps[uAcknowledged] : nullptr;
    bool bGoesOn = true;
    for (int i = 0; i < kFiles; ++i) {
      const bool bUnderWay = pUnderWay != nullptr && pUnderWay->iFile == i && !pUnderWay->vecCommits.empty();
      bGoesOn = LookAtFile(life, i, bUnderWay ? pUnderWay : nullptr, strCopy + "/" + DatabaseName(i)) && bGoesOn;
    }
    std::filesystem::remove_all(strCopy);
    return bGoesOn;
  }

  // pUnderWay: the step that was, if it changes the file.
  bool LookAtFile(const Life& life, int iFile, const Step* pUnderWay, const std::string& strPath) {
    FileBook& file = m_vecFiles[static_cast<size_t>(iFile)];
    CRecordBook& book = file.book;
    const LeftFile left = ReadLeftFile(strPath);
    const std::string strFile = "file " + std::to_string(iFile) + " after " + file.strHistory + ": ";
    ++m_figures.uFilesChecked;
    file.bIsDamaged = left.state == LeftFile::State::Damaged;
    if (file.bIsDamaged && !file.bMayBeDamaged) {
      Fault(m_figures.uDamaged, strFile + left.strProblem);
      return false;
    }
    if (left.state == LeftFile::State::Tableless && !m_options.bTableComesLater) {
      Fault(m_figures.uTableless, strFile + "no table");
      return false;
    }
    const size_t uMayLose = life.end == End::Kill ? 0 : m_options.uMayLose;
    const auto found = book.Find(left.rows);
    if (!file.bIsDamaged) {
      const size_t uRecordsLost = book.CountLost(left.rows);
      m_figures.uRecordsLost += uRecordsLost;
      m_figures.uMostRecordsLost = std::max(m_figures.uMostRecordsLost, uRecordsLost);
      const bool bDamageUnderWay = pUnderWay != nullptr && pUnderWay->kind == Step::Kind::Damage;
      // Without rows, it may be a file whose first rows were permitted to go.
      file.bPutAway = file.bPutAway || (bDamageUnderWay && found && *found > book.Acknowledged() &&
                                        (uMayLose == 0 || !left.rows.empty()));
    }
    if (file.bPutAway) {
      ++m_figures.uBackupsChecked;
      const std::string strProblem = BackupProblem(strPath);
      if (!strProblem.empty()) {
        Fault(m_figures.uWithoutBackup, strFile + strProblem);
      }
    }
    if (!found && HasReturned(life, left.rows, file)) {
      ++m_figures.uReturned;
      KeepLost(0, file);
      book.StartFrom(left.rows);
      return true;
    }
    if (!found) {
      Fault(m_figures.uMixed, strFile + std::to_string(left.rows.size()) + " rows of no state there was, newest " +
                                  std::to_string(book.Newest().size()));
      return false;
    }
    m_figures.uRecordsChecked += left.rows.size();
    CompareCommits(uMayLose, pUnderWay, *found, strFile, book);
    if (life.end == End::Kill) {
      book.CutBack(*found);
    } else {
      KeepLost(*found, file);
      book.StartFrom(left.rows);
      file.bMayBeDamaged = file.bIsDamaged;
    }
    return true;
  }

  // Whether an earlier cut's permitted loss is back, in place of commits that all were permitted to go.
  bool HasReturned(const Life& life, const Rows& rows, const FileBook& file) const {
    return life.end == End::PowerCut && file.book.Durable() == 0 && file.book.Acknowledged() <= m_options.uMayLose &&
           std::find(file.vecLost.begin(), file.vecLost.end(), rows) != file.vecLost.end();
  }

  // A new commit that stayed ends what was there before it.
  void KeepLost(size_t uFound, FileBook& file) const {
    if (uFound != 0) {
      file.vecLost.clear();
    }
    for (size_t i = uFound + 1; i <= file.book.Commits() && m_options.uMayLose != 0; ++i) {
      file.vecLost.push_back(file.book.StateAfter(i));
    }
  }

  void CompareCommits(size_t uMayLose, const Step* pUnderWay, size_t uFound, const std::string& strFile,
                      const CRecordBook& book) {
    const size_t uAcknowledged = book.Acknowledged();
    const size_t uMust = std::max(book.Durable(), uAcknowledged - std::min(uAcknowledged, uMayLose));
    const size_t uLost = uAcknowledged - std::min(uAcknowledged, uFound);
    m_figures.uMostCommitsLost = std::max(m_figures.uMostCommitsLost, uLost);
    if (uFound < uMust) {
      Fault(m_figures.uLossy, strFile + std::to_string(uLost) + " acknowledged commits lost, known to be durable " +
                                  std::to_string(book.Durable()) + " of " + std::to_string(uAcknowledged));
    }
    if (pUnderWay != nullptr) {
      ++(uFound == book.Commits()  ? m_figures.uStepsWhole
         : uFound <= uAcknowledged ? m_figures.uStepsGone
                                   : m_figures.uStepsPartly);
    }
  }

  void Fault(size_t& uCount, const std::string& strText) {
    ++uCount;
    if (m_figures.uFirstFault == 0) {
      m_figures.uFirstFault = m_figures.uCuts;
      m_figures.u64FirstSeed = m_u64Seed;
    }
    if (m_figures.vecFaults.size() < kMostFaultsTold) {
      m_figures.vecFaults.push_back("seed " + std::to_string(m_u64Seed) + ", cut " + std::to_string(m_figures.uCuts) +
                                    ", directory " + std::to_string(m_uDirectories) + ", " + strText);
    }
  }

  const PowerCutOptions& m_options;
  uint64_t m_u64Seed;
  std::mt19937_64 m_random;
  PowerCutFigures& m_figures;
  CTemporaryDirectory m_directory;
  size_t m_uDirectories = 0;
  std::string m_strLive;
  bool m_bDiskGoesOn = false;  // the last process was killed; what it had not synced still is not
  std::vector<FileBook> m_vecFiles;
  uint64_t m_u64NextId = 1;
};

}  // namespace

PowerCutFigures CutPower(const PowerCutOptions& options) {
  PowerCutFigures figures;
  for (uint64_t u64Seed = options.u64Seed; figures.uCuts < options.uCuts; ++u64Seed) {
    CChain(options, u64Seed, figures).Run();
  }
  return figures;
}

std::string Describe(const PowerCutFigures& figures) {
  std::ostringstream text;
  text << figures.uCuts << " cuts and " << figures.uKills << " kills in " << figures.u64Calls << " calls and "
       << figures.uSteps << " steps\n  records: " << figures.uRecords << " acknowledged, " << figures.uRecordsLost
       << " lost, at most " << figures.uMostRecordsLost << " in one file, of " << figures.uMostCommitsLost
       << " commits; " << figures.uReturned << " times back at a later cut\n  steps under way: " << figures.uStepsWhole
       << " whole, " << figures.uStepsPartly << " in part, " << figures.uStepsGone
       << " gone\n  checked: " << figures.uFilesChecked << " files, " << figures.uRecordsChecked << " records, "
       << figures.uBackupsChecked << " backups\n  faults: " << figures.uDamaged << " files fail the integrity check, "
       << figures.uTableless << " without table, " << figures.uLossy << " lossy, " << figures.uMixed << " of no state, "
       << figures.uWithoutBackup << " without backup, " << figures.uRefused << " refused\n  digest " << std::hex
       << figures.u64Digest << std::dec;
  if (figures.uFirstFault != 0) {
    text << "\n  the first fault at cut " << figures.uFirstFault
         << ", repeated by QM_POWER_CUT_SEED=" << figures.u64FirstSeed << " QM_POWER_CUTS=1";
  }
  for (const std::string& strFault : figures.vecFaults) {
    text << "\n    " << strFault;
  }
  return text.str();
}
