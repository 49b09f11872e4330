#include "tests/power_cut/store_life.h"

#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <exception>
#include <new>
#include <random>
#include <stdexcept>

#include "tests/power_cut/disk_calls.h"
#include "tests/power_cut/simulated_disk.h"

namespace {

// Filled by the store's process, read after its end.
struct Report {
  size_t uAcknowledged = 0;
  uint64_t u64Calls = 0;
  bool bEnded = false;
  char szProblem[512] = {};
};

class CSharedReport {
 public:
  CSharedReport() {
    void* pMemory = mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (pMemory == MAP_FAILED) {
      throw std::runtime_error("mmap");
    }
    m_pReport = new (pMemory) Report;
  }
  ~CSharedReport() { munmap(m_pReport, sizeof(Report)); }
  CSharedReport(const CSharedReport&) = delete;
  CSharedReport& operator=(const CSharedReport&) = delete;
  Report& operator*() { return *m_pReport; }
  Report* operator->() { return m_pReport; }

 private:
  Report* m_pReport;
};

// The salts of logs and journals come from it; without a seed no run is like another to the byte.
void SeedSqlite(uint64_t u64Seed) {
  constexpr uint64_t kMask = 0x3fffffff;
  const auto iSeed = static_cast<int>(1 + (u64Seed & kMask));  // 0 is none
  sqlite3_test_control(SQLITE_TESTCTRL_PRNG_SEED, iSeed, static_cast<sqlite3*>(nullptr));
}

[[noreturn]] void Fail(Report& report, const std::string& strProblem) {
  strncpy(report.szProblem, strProblem.c_str(), sizeof(report.szProblem) - 1);
  _exit(1);
}

[[noreturn]] void EndLife(const Life& life, const LifePlace& place, const CSimulatedDisk& disk, Report& report) {
  report.u64Calls = WatchedCalls();
  StopWatching();
  const std::string strDifference = disk.Difference();
  if (!strDifference.empty()) {
    Fail(report, "the simulated disk is blind: " + strDifference);
  }
  if (life.end == End::Kill) {
    disk.Save(place.strSavedDisk);
  } else {
    std::mt19937_64 random(place.u64Seed);
    disk.Materialise(place.strTarget, random);
  }
  report.bEnded = true;
  _exit(0);
}

[[noreturn]] void BeTheStore(const Life& life, const LifePlace& place, const StoreFactory& store,
                             const std::vector<FileState>& vecStates, Report& report) {
  try {
    CSimulatedDisk disk(place.strDirectory);
    if (place.bDiskGoesOn) {
      disk.Load(place.strSavedDisk);
    }
    SeedSqlite(place.u64Seed);
    WatchDisk(place.strDirectory, disk, life.u64LastCall, [&] { EndLife(life, place, disk, report); });
    const auto pStore = store(place.strDirectory);
    CWorker worker(place.strDirectory, *pStore, vecStates);
    for (const Step& step : life.vecSteps) {
      const std::string strProblem = worker.Run(step);
      if (!strProblem.empty()) {
        Fail(report, strProblem);
      }
      ++report.uAcknowledged;
    }
    EndLife(life, place, disk, report);
  } catch (const std::exception& error) {
    Fail(report, error.what());
  }
}

}  // namespace

LifeReport RunLife(const Life& life, const LifePlace& place, const StoreFactory& store,
                   const std::vector<FileState>& vecStates) {
  CSharedReport report;
  const pid_t iChild = fork();
  if (iChild == 0) {
    BeTheStore(life, place, store, vecStates, *report);
  }
  int iStatus = 0;
  if (iChild < 0 || waitpid(iChild, &iStatus, 0) != iChild) {
    throw std::runtime_error("no process for the store");
  }
  std::string strProblem = report->szProblem;
  if (WIFSIGNALED(iStatus)) {
    strProblem += " signal " + std::to_string(WTERMSIG(iStatus));
  }
  return {report->uAcknowledged, report->u64Calls, report->bEnded, strProblem};
}
