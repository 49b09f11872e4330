#include "tools/qmsend/terminal.h"

#include <unistd.h>

#include <cstdio>

namespace {

constexpr std::chrono::milliseconds kRedraw{250};

double PerSecond(uint64_t u64Count, std::chrono::steady_clock::duration time) {
  const double dSeconds = std::chrono::duration<double>(time).count();
  return dSeconds > 0 ? static_cast<double>(u64Count) / dSeconds : 0;
}

}  // namespace

CTerminal::CTerminal(bool bProgress)
    : m_bProgress(bProgress && ::isatty(STDERR_FILENO) == 1), m_lastTime(Clock::now()) {}

CTerminal::~CTerminal() {
  ClearProgress();
}

void CTerminal::Line(const std::string& strText) {
  ClearProgress();
  std::fprintf(stderr, "qmsend: %s\n", strText.c_str());
}

void CTerminal::Progress(const SendCounts& counts, Clock::time_point now) {
  if (!m_bProgress || now < m_next) {
    return;
  }
  std::fprintf(stderr, "\r\033[Ksent %llu, accepted %llu, %.0f/s, refused %llu",
               static_cast<unsigned long long>(counts.u64Sent), static_cast<unsigned long long>(counts.u64Accepted),
               PerSecond(counts.u64Accepted - m_u64LastAccepted, now - m_lastTime),
               static_cast<unsigned long long>(counts.u64Refused));
  m_next = now + kRedraw;
  m_lastTime = now;
  m_u64LastAccepted = counts.u64Accepted;
  m_bDrawn = true;
}

void CTerminal::ClearProgress() {
  if (m_bDrawn) {
    std::fputs("\r\033[K", stderr);
    m_bDrawn = false;
    m_next = {};
  }
}

std::string RateText(uint64_t u64Records, std::chrono::steady_clock::duration time) {
  char szText[96];
  std::snprintf(szText, sizeof(szText), "%.2f seconds, %.0f records/s", std::chrono::duration<double>(time).count(),
                PerSecond(u64Records, time));
  return szText;
}
