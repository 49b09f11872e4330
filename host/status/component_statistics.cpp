#include "host/status/component_statistics.h"

#include <charconv>
#include <string>

#include "platform/log.h"

namespace {

constexpr const char* kChannel = "qmlogcache";
constexpr std::string_view kBegin = "qmlogcache CLogCacheMgr::PrintfStat ";

// The value of " name[123]".
bool ReadField(std::string_view svLine, std::string_view svName, uint64_t& u64Value) {
  std::string strField(" ");
  strField.append(svName).append("[");
  const size_t uBegin = svLine.find(strField);
  if (uBegin == std::string_view::npos) {
    return false;
  }
  const char* const pBegin = svLine.data() + uBegin + strField.size();
  const char* const pEnd = svLine.data() + svLine.size();
  const auto [pStop, error] = std::from_chars(pBegin, pEnd, u64Value);
  return error == std::errc() && pStop != pEnd && *pStop == ']';
}

}  // namespace

std::optional<ComponentStatistics> ReadComponentStatistics(std::string_view svLine) {
  if (svLine.substr(0, kBegin.size()) != kBegin) {
    return std::nullopt;
  }
  ComponentStatistics read;
  uint64_t u64Single = 0;
  struct Field {
    std::string_view svName;
    uint64_t& u64Value;
  };
  const Field aFields[] = {
      {"mapLogExecData", read.u64MemoryRecords}, {"LowQueueData", read.aQueued[0]},
      {"NormalQueueData", read.aQueued[1]},      {"HighQueueData", read.aQueued[2]},
      {"RealQueueData", read.aQueued[3]},        {"SendSingle", u64Single},
      {"SendErrorCount", read.u64FailuresInRow}, {"CountAddFail", read.u64StoreFailures},
      {"CountSendFail", read.u64SendFailures},   {"CountTimeout", read.aTimedOut[0]},
      {"CountReTimeout", read.aTimedOut[1]},     {"CountQmcloud", read.aTurnedBack[0]},
      {"CountReQmcloud", read.aTurnedBack[1]},
  };
  for (const Field& field : aFields) {
    if (!ReadField(svLine, field.svName, field.u64Value)) {
      return std::nullopt;
    }
  }
  read.bSingleSend = u64Single != 0;
  return read;
}

CComponentStatistics::CComponentStatistics() {
  static_cast<void>(QmLogObserve(kChannel, kLogLifecycle, Observe, this));
}

CComponentStatistics::~CComponentStatistics() {
  static_cast<void>(QmLogObserve(kChannel, 0, nullptr, nullptr));
}

std::optional<ComponentStatistics> CComponentStatistics::Latest() const {
  const std::lock_guard lock(m_mutex);
  return m_optLatest;
}

void CComponentStatistics::Observe(const char* pText, unsigned long uLength, void* pUser) {
  try {
    std::optional<ComponentStatistics> optRead = ReadComponentStatistics({pText, uLength});
    if (optRead) {
      optRead->time = std::chrono::system_clock::now();
      auto& self = *static_cast<CComponentStatistics*>(pUser);
      const std::lock_guard lock(self.m_mutex);
      self.m_optLatest = optRead;
    }
  } catch (...) {
    // No memory: the line before it stays.
  }
}
