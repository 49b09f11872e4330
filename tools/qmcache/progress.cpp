#include "tools/qmcache/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "tools/qmcache/printable.h"

namespace {

bool g_bDrawn = false;
CProgress* g_pCurrent = nullptr;
constexpr std::chrono::milliseconds kFirstDraw{400};  // what is done by then needs no bar
constexpr std::chrono::milliseconds kRedraw{200};
constexpr size_t kWidth = 30;
constexpr uint64_t kPercent = 100;

}  // namespace

CProgress::CProgress(uint64_t u64Total, bool bShow)
    : m_u64Total(u64Total), m_bShow(bShow && isatty(STDERR_FILENO) == 1), m_next(Clock::now() + kFirstDraw) {
  g_pCurrent = this;
}

CProgress::~CProgress() {
  g_pCurrent = nullptr;
  TakeAway();
}

void CProgress::Begin(const std::string& strName, uint64_t u64Bytes) {
  m_u64Before += m_u64Part;
  m_u64Part = u64Bytes;
  m_u64Done = 0;
  m_strName = strName;
  Draw();
}

void CProgress::Advance(uint64_t u64Bytes) {
  m_u64Done = std::min(m_u64Part, m_u64Done + u64Bytes);
  Draw();
}

void CProgress::Step(uint64_t u64Bytes) {
  if (g_pCurrent != nullptr) {
    g_pCurrent->Advance(u64Bytes);
  }
}

void CProgress::TakeAway() {
  if (g_bDrawn) {
    std::fputs("\r\033[K", stderr);
    g_bDrawn = false;
  }
}

void CProgress::Draw() {
  if (!m_bShow || Clock::now() < m_next) {
    return;
  }
  m_next = Clock::now() + kRedraw;
  const uint64_t u64Total = std::max<uint64_t>(m_u64Total, 1);
  const double dPart = std::min(1.0, static_cast<double>(m_u64Before + m_u64Done) / static_cast<double>(u64Total));
  const auto uFull = static_cast<size_t>(dPart * kWidth);
  const auto iSeconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - m_begun).count();
  std::fprintf(stderr, "\r\033[K[%s%s] %3u%% %llds %s", std::string(uFull, '#').c_str(),
               std::string(kWidth - uFull, ' ').c_str(), static_cast<unsigned int>(dPart * kPercent),
               static_cast<long long>(iSeconds), Printable(m_strName).c_str());
  g_bDrawn = true;
}
