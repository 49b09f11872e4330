#include "tests/power_cut/workload.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

namespace {

size_t Below(std::mt19937_64& random, size_t uBound) {
  return std::uniform_int_distribution<size_t>(0, uBound - 1)(random);
}

std::string MakeData(uint64_t u64DataId, std::mt19937_64& random) {
  constexpr size_t kShort = 600;
  constexpr size_t kLong = 12000;
  constexpr size_t kLongOneIn = 16;
  const size_t uSize = 1 + (Below(random, kLongOneIn) == 0 ? Below(random, kLong) : Below(random, kShort));
  const std::string strPiece = "<a b='" + std::to_string(u64DataId) + "'>\xC3\xA4\n\"%s''</a>";
  std::string strData;
  while (strData.size() < uSize) {
    strData += strPiece;
  }
  return strData;
}

Row MakeRow(uint64_t& u64NextId, std::mt19937_64& random) {
  const uint64_t u64DataId = u64NextId++;
  return {u64DataId,   static_cast<int>(Below(random, 4)),      static_cast<int>(1 + Below(random, 3)),
          "product's", "combo" + std::to_string(u64DataId % 7), MakeData(u64DataId, random)};
}

struct Weight {
  Step::Kind kind;
  size_t uWeight;
  bool bForAnyStore;
};
constexpr Weight kWeights[] = {
    {Step::Kind::Insert, 42, true},        {Step::Kind::Cover, 6, true},       {Step::Kind::Delete, 22, true},
    {Step::Kind::Batch, 7, true},          {Step::Kind::Compact, 2, true},     {Step::Kind::Load, 4, true},
    {Step::Kind::Shell, 6, false},         {Step::Kind::ShellStays, 3, false}, {Step::Kind::ShellGoes, 3, false},
    {Step::Kind::ShellRollback, 2, false}, {Step::Kind::Damage, 2, false},
};

Step::Kind DrawKind(const WorkloadKind& kind, std::mt19937_64& random) {
  size_t uTotal = 0;
  for (const Weight& weight : kWeights) {
    uTotal += kind.bOperatorAndDamage || weight.bForAnyStore ? weight.uWeight : 0;
  }
  size_t uDrawn = Below(random, uTotal);
  for (const Weight& weight : kWeights) {
    const size_t uWeight = kind.bOperatorAndDamage || weight.bForAnyStore ? weight.uWeight : 0;
    if (uDrawn < uWeight) {
      return weight.kind;
    }
    uDrawn -= uWeight;
  }
  return Step::Kind::Insert;
}

size_t BatchSize(std::mt19937_64& random) {
  constexpr size_t kSmall = 30;
  constexpr size_t kLarge = 300;
  return 1 + (Below(random, 6) == 0 ? Below(random, kLarge) : Below(random, kSmall));
}

// Mostly the oldest, as in a working host.
uint64_t DrawRow(const Rows& rows, std::mt19937_64& random) {
  auto it = rows.begin();
  if (Below(random, 3) == 0) {
    std::advance(it, static_cast<std::ptrdiff_t>(Below(random, rows.size())));
  }
  return it->first;
}

}  // namespace

char Letter(Step::Kind kind) {
  constexpr std::string_view kLetters = "ICDBVLSogRX";
  return kLetters.at(static_cast<size_t>(kind));
}

std::vector<Step> MakeWorkload(const WorkloadKind& kind, const std::vector<FileState>& vecStates, uint64_t& u64NextId,
                               std::mt19937_64& random) {
  std::vector<FileState> vecNow = vecStates;
  std::vector<Step> vecSteps(1);
  vecSteps[0].kind = Step::Kind::Load;
  while (vecSteps.size() < kind.uSteps) {
    Step step;
    step.kind = DrawKind(kind, random);
    step.iFile = static_cast<int>(Below(random, kFiles));
    FileState& file = vecNow[static_cast<size_t>(step.iFile)];
    if (file.bMayBeDamaged || file.bMayReturn || (file.rows.empty() && step.kind != Step::Kind::Batch)) {
      step.kind = Step::Kind::Insert;
    }
    switch (step.kind) {
      case Step::Kind::Insert:
        step.vecRows = {MakeRow(u64NextId, random)};
        step.vecCommits = {{false, {}, step.vecRows}};
        break;
      case Step::Kind::Cover:
        step.vecRows = {MakeRow(u64NextId, random)};
        step.vecCommits = {{false, {file.rows.begin()->first}, {}}, {false, {}, step.vecRows}};
        break;
      case Step::Kind::Delete:
        step.u64DataId = DrawRow(file.rows, random);
        step.vecCommits = {{false, {step.u64DataId}, {}}};
        break;
      case Step::Kind::Batch:
        for (size_t uLeft = BatchSize(random); uLeft > 0; --uLeft) {
          step.vecRows.push_back(MakeRow(u64NextId, random));
        }
        step.vecCommits = {{false, {}, step.vecRows}};
        break;
      case Step::Kind::Damage:
        step.vecRows = {MakeRow(u64NextId, random)};
        step.vecCommits = {{true, {}, {}}, {false, {}, step.vecRows}};
        break;
      default:
        break;
    }
    for (const Commit& commit : step.vecCommits) {
      Apply(commit, file.rows);
    }
    file.bMayBeDamaged = file.bMayBeDamaged && step.vecCommits.empty();
    file.bMayReturn = file.bMayReturn && step.vecCommits.empty();
    vecSteps.push_back(std::move(step));
  }
  return vecSteps;
}

CWorker::CWorker(const std::string& strDirectory, IRecordStore& store, const std::vector<FileState>& vecStates)
    : m_strDirectory(strDirectory), m_store(store) {
  for (const FileState& state : vecStates) {
    m_vecExpected.push_back(state.rows);
  }
}

std::string CWorker::CompareAll() {
  std::vector<Rows> vecLoaded;
  if (!m_store.Load(vecLoaded)) {
    return "load failed";
  }
  for (int i = 0; i < kFiles; ++i) {
    const Rows& loaded = vecLoaded[static_cast<size_t>(i)];
    const Rows& expected = m_vecExpected[static_cast<size_t>(i)];
    if (loaded != expected) {
      return "loaded " + std::to_string(loaded.size()) + " rows and not the " + std::to_string(expected.size()) +
             " of file " + std::to_string(i);
    }
  }
  return {};
}

bool CWorker::OpenShell(int iFile) {
  if (!std::filesystem::exists(Path(iFile))) {
    return true;
  }
  sqlite3*& pShell = m_shells.at(static_cast<size_t>(iFile));
  // A shell that has not read since the file was moved to the log would not remove the log.
  return (pShell != nullptr ||
          sqlite3_open_v2(Path(iFile).c_str(), &pShell, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) &&
         sqlite3_exec(pShell, "select count(*) from sqlite_schema;", nullptr, nullptr, nullptr) == SQLITE_OK;
}

bool CWorker::CloseShell(int iFile) {
  sqlite3*& pShell = m_shells.at(static_cast<size_t>(iFile));
  const bool bClosed = sqlite3_close(pShell) == SQLITE_OK;
  pShell = nullptr;
  return bClosed;
}

std::string CWorker::Run(const Step& step) {
  bool bDone = false;
  switch (step.kind) {
    case Step::Kind::Insert:
      bDone = m_store.Insert(step.iFile, step.vecRows.front(), false);
      break;
    case Step::Kind::Cover:
      bDone = m_store.Insert(step.iFile, step.vecRows.front(), true);
      break;
    case Step::Kind::Delete:
      bDone = m_store.Delete(step.iFile, step.u64DataId);
      break;
    case Step::Kind::Batch:
      bDone = m_store.Batch(step.iFile, step.vecRows);
      break;
    case Step::Kind::Compact:
      bDone = m_store.Compact(step.iFile);
      break;
    case Step::Kind::Load:
      return CompareAll();
    case Step::Kind::Shell:
      bDone = OpenShell(step.iFile) && CloseShell(step.iFile);
      break;
    case Step::Kind::ShellStays:
      bDone = OpenShell(step.iFile);
      break;
    case Step::Kind::ShellGoes:
      bDone = CloseShell(step.iFile);
      break;
    case Step::Kind::ShellRollback:
      bDone = OpenShell(step.iFile) &&
              sqlite3_exec(m_shells.at(static_cast<size_t>(step.iFile)), "pragma journal_mode=delete;", nullptr,
                           nullptr, nullptr) == SQLITE_OK &&
              CloseShell(step.iFile);
      break;
    case Step::Kind::Damage: {
      const std::string strGarbage(kDamagedBytes, kDamagedByte);
      if (!OpenShell(step.iFile) || !CloseShell(step.iFile)) {
        break;
      }
      const int iFile = open(Path(step.iFile).c_str(), O_WRONLY | O_CLOEXEC);
      bDone = iFile >= 0 && pwrite(iFile, strGarbage.data(), strGarbage.size(), 0) == ssize_t{kDamagedBytes} &&
              fsync(iFile) == 0 && close(iFile) == 0 && m_store.Insert(step.iFile, step.vecRows.front(), false);
      break;
    }
  }
  if (!bDone) {
    return "step of kind " + std::to_string(static_cast<int>(step.kind)) + " failed on file " +
           std::to_string(step.iFile);
  }
  for (const Commit& commit : step.vecCommits) {
    Apply(commit, m_vecExpected[static_cast<size_t>(step.iFile)]);
  }
  return {};
}
