#include "bench/storage/measure.h"

#include <chrono>
#include <stdexcept>
#include <string>

const char* DurabilityOfSync(int iSync) {
  return iSync == kSyncFull ? kSurvivesPowerCut : kSurvivesProcess;
}

double SecondsOf(const std::function<void()>& action) {
  const auto start = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void RunInTurn(int iRounds, const std::vector<Case>& vecCases) {
  const size_t uCases = vecCases.size();
  for (int iRound = 1; iRound <= iRounds; ++iRound) {
    const auto uFirst = static_cast<size_t>(iRound) - 1;
    for (size_t i = 0; i < uCases; ++i) {
      const size_t uStep = iRound % 2 != 0 ? i : uCases - 1 - i;
      vecCases[(uFirst + uStep) % uCases](iRound);
    }
  }
}

void Require(int iRet, const char* pszWhat) {
  if (iRet != 0) {
    throw std::runtime_error(std::string(pszWhat) + ": result " + std::to_string(static_cast<unsigned int>(iRet)));
  }
}
