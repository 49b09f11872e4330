#include "bench/peers/loader_lines.h"

#include <charconv>

namespace {

constexpr std::string_view kHead = "<14>Jan 31 12:00:00 bench loader: ";
constexpr size_t kDigits = 10;
constexpr std::string_view kPlain =
    " connection accepted from 10.20.30.40 port 51234 to 10.20.30.41 port 443 by rule 17, user alice, session 8842";
constexpr std::string_view kQuoted = " started \"C:\\bin\\tool.exe --all\" as \"alice\"";
constexpr uint64_t kQuotedEvery = 8;

std::string Form(std::string_view svBody) {
  std::string strForm(kHead);
  strForm.append(kDigits, '0');
  while (strForm.size() < kLineSize) {
    strForm += svBody;
    svBody = kPlain;
  }
  strForm.resize(kLineSize);
  return strForm;
}

}  // namespace

CLoaderLines::CLoaderLines() : m_astrForms{Form(kPlain), Form(kQuoted)} {}

std::string_view CLoaderLines::Line(uint64_t u64Number) {
  std::string& strLine = m_astrForms[u64Number % kQuotedEvery == 0 ? 1 : 0];
  for (size_t i = kDigits; i > 0; --i, u64Number /= 10) {
    strLine[kHead.size() + i - 1] = static_cast<char>('0' + u64Number % 10);
  }
  return strLine;
}

bool CLoaderLines::ReadNumber(std::string_view svLine, uint64_t& u64Number) {
  if (svLine.size() != kLineSize || !svLine.starts_with(kHead)) {
    return false;
  }
  const char* pBegin = svLine.data() + kHead.size();
  const auto result = std::from_chars(pBegin, pBegin + kDigits, u64Number);
  return result.ec == std::errc() && result.ptr == pBegin + kDigits;
}
