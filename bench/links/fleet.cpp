// A fleet that has lost its server, in virtual time: when its agents ask for the server, with the links' own pauses.
//
// All agents lose the server at the second 0, and an attempt is refused at once: the hardest case for the server. It is
// back after the outage, and takes every agent that asks from then on. "No jitter" is what the same ceilings would do as
// pauses that are not drawn at random.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bench/support/bench_options.h"
#include "bench/support/result_line.h"
#include "host/link/back_off.h"

namespace {

constexpr std::chrono::milliseconds kLongest{60000};  // the default of retry_max_ms
constexpr int64_t kMsPerSecond = 1000;
// The last part of an outage, which tells what it costs while it lasts.
constexpr size_t kLateSeconds = 60;

struct FleetCase {
  size_t uAgents;
  size_t uOutageSeconds;
  bool bJitter;

  std::string Name() const {
    return "agents_" + std::to_string(uAgents) + "_outage_" + std::to_string(uOutageSeconds) +
           (bJitter ? "" : "_no_jitter");
  }
};

constexpr size_t kAgents[] = {200, 100000};
constexpr size_t kOutageSeconds[] = {2, 10, 600};

struct Fleet {
  std::vector<size_t> vecAway;        // attempts in each second of the outage
  std::vector<int64_t> vecI64BackMs;  // of each agent, from the server's return on, in order
};

std::chrono::milliseconds NextPause(CBackOff& backOff, bool bJitter) {
  const std::chrono::milliseconds ceiling = backOff.Ceiling();
  const std::chrono::milliseconds drawn = backOff.Next(std::nullopt);
  return bJitter ? drawn : ceiling;
}

Fleet Simulate(const FleetCase& fleetCase, int iRound) {
  const auto i64OutageMs = static_cast<int64_t>(fleetCase.uOutageSeconds) * kMsPerSecond;
  Fleet fleet;
  fleet.vecAway.resize(fleetCase.uOutageSeconds);
  fleet.vecI64BackMs.reserve(fleetCase.uAgents);
  for (size_t i = 0; i < fleetCase.uAgents; ++i) {
    CBackOff backOff((static_cast<uint64_t>(iRound) << 32U) + i, kLongest);
    int64_t i64NowMs = NextPause(backOff, fleetCase.bJitter).count();
    while (i64NowMs < i64OutageMs) {
      ++fleet.vecAway[static_cast<size_t>(i64NowMs / kMsPerSecond)];
      i64NowMs += NextPause(backOff, fleetCase.bJitter).count();
    }
    fleet.vecI64BackMs.push_back(i64NowMs - i64OutageMs);
  }
  std::sort(fleet.vecI64BackMs.begin(), fleet.vecI64BackMs.end());
  return fleet;
}

// After how many seconds so many agents of a hundred are back.
double SecondsUntil(const Fleet& fleet, size_t uPercent) {
  const size_t uCount = (fleet.vecI64BackMs.size() * uPercent + 99) / 100;
  return static_cast<double>(fleet.vecI64BackMs[uCount - 1]) / kMsPerSecond;
}

// The most agents that come back within any second.
size_t MostInASecond(const Fleet& fleet) {
  size_t uMost = 0;
  size_t uFirst = 0;
  for (size_t i = 0; i < fleet.vecI64BackMs.size(); ++i) {
    while (fleet.vecI64BackMs[i] - fleet.vecI64BackMs[uFirst] >= kMsPerSecond) {
      ++uFirst;
    }
    uMost = std::max(uMost, i - uFirst + 1);
  }
  return uMost;
}

void Report(const FleetCase& fleetCase, int iRound) {
  const ResultGroup group{"fleet", kInMemory};
  const Fleet fleet = Simulate(fleetCase, iRound);
  const std::string strCase = fleetCase.Name();
  const size_t uLate = std::min(kLateSeconds, fleet.vecAway.size());
  size_t uLateAttempts = 0;
  for (size_t i = fleet.vecAway.size() - uLate; i < fleet.vecAway.size(); ++i) {
    uLateAttempts += fleet.vecAway[i];
  }
  const auto Print = [&](const char* pszMetric, const char* pszUnit, double dValue) {
    group.Print(strCase.c_str(), iRound, pszMetric, pszUnit, dValue);
  };
  Print("away_rate", "attempts/s", static_cast<double>(uLateAttempts) / static_cast<double>(uLate));
  Print("away_most", "attempts/s", static_cast<double>(*std::max_element(fleet.vecAway.begin(), fleet.vecAway.end())));
  Print("back_most", "agents/s", static_cast<double>(MostInASecond(fleet)));
  Print("back_50", "s", SecondsUntil(fleet, 50));
  Print("back_90", "s", SecondsUntil(fleet, 90));
  Print("back_100", "s", SecondsUntil(fleet, 100));
}

}  // namespace

int main(int iArguments, char** ppszArguments) {
  const BenchOptions options = ParseBenchOptions(iArguments, ppszArguments, {"fleet"});
  for (int iRound = 1; iRound <= options.iRounds; ++iRound) {
    for (const size_t uAgents : kAgents) {
      for (const size_t uOutageSeconds : kOutageSeconds) {
        Report({uAgents, uOutageSeconds, true}, iRound);
        Report({uAgents, uOutageSeconds, false}, iRound);
      }
    }
  }
  return 0;
}
