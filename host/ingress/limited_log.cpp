#include "host/ingress/limited_log.h"

#include "platform/log.h"

CLimitedLog::CLimitedLog() : m_hLog(LogInit("qmhost")) {}

CLimitedLog::~CLimitedLog() {
  LogUninit(m_hLog);
}

void CLimitedLog::Warn(Kind kind, const std::string& strText) noexcept {
  uint64_t u64LeftOut = 0;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    Line& line = m_aLines[static_cast<size_t>(kind)];
    const auto now = std::chrono::steady_clock::now();
    if (now < line.next) {
      ++line.u64LeftOut;
      return;
    }
    line.next = now + std::chrono::seconds(1);
    u64LeftOut = line.u64LeftOut;
    line.u64LeftOut = 0;
  }
  if (u64LeftOut == 0) {
    LogPrint(m_hLog, kLogWarning, "*ingress: %s", strText.c_str());
  } else {
    LogPrint(m_hLog, kLogWarning, "*ingress: %s (%llu more of this kind were not logged)", strText.c_str(),
             static_cast<unsigned long long>(u64LeftOut));
  }
}

void CLimitedLog::Note(const std::string& strText) noexcept {
  LogPrint(m_hLog, kLogLifecycle, "ingress: %s", strText.c_str());
}
