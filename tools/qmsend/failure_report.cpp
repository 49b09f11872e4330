#include "tools/qmsend/failure_report.h"

#include <iterator>
#include <numeric>
#include <utility>

#include "tools/qmsend/status_text.h"

namespace {

constexpr size_t kNamedOneByOne = 100;
// More ranges than this are not kept: the first half is printed, so that memory stays bounded.
constexpr size_t kMaxRanges = 4096;

}  // namespace

CFailureReport::Cause CauseOf(SendFailure failure) {
  switch (failure) {
    case SendFailure::Refused:
      return CFailureReport::Cause::Refused;
    case SendFailure::TooLong:
      return CFailureReport::Cause::TooLong;
    case SendFailure::NoAnswer:
      return CFailureReport::Cause::NoAnswer;
    case SendFailure::NotSent:
      break;
  }
  return CFailureReport::Cause::NotSent;
}

std::string CauseText(CFailureReport::Cause cause, uint32_t uStatus) {
  switch (cause) {
    case CFailureReport::Cause::Refused:
      return "refused, status " + StatusText(uStatus);
    case CFailureReport::Cause::TooLong:
      return "not sent, longer than the host takes";
    case CFailureReport::Cause::ZeroByte:
      return "not sent, it holds a zero byte, where the component would cut it";
    case CFailureReport::Cause::NoRecord:
      return "not sent, the line is no record";
    case CFailureReport::Cause::NoAnswer:
      return uStatus == 0 ? "no answer, it may have been taken or not"
                          : "it may have been taken or not, status " + StatusText(uStatus);
    case CFailureReport::Cause::NotSent:
      break;
  }
  return "not sent";
}

CFailureReport::CFailureReport(std::function<void(const std::string&)> fnLine,
                               std::function<std::string(size_t)> fnName)
    : m_fnLine(std::move(fnLine)), m_fnName(std::move(fnName)) {}

void CFailureReport::Add(size_t uSource, uint64_t u64Number, Cause cause, uint32_t uStatus, std::string_view svHead,
                         bool bMore) {
  ++m_aCounts[static_cast<size_t>(cause)];
  if (m_uNamed < kNamedOneByOne) {
    ++m_uNamed;
    m_fnLine(m_fnName(uSource) + ":" + std::to_string(u64Number) + ": " + CauseText(cause, uStatus) + ": " +
             Excerpt(svHead, bMore));
    return;
  }
  AddToRanges(uSource, u64Number, cause, uStatus);
  if (m_mapRanges.size() > kMaxRanges) {
    PrintRanges(kMaxRanges / 2);
  }
}

void CFailureReport::AddToRanges(size_t uSource, uint64_t u64Number, Cause cause, uint32_t uStatus) {
  const auto fnJoins = [&](const Ranges::value_type& entry) {
    return entry.first.first == uSource && entry.second.cause == cause && entry.second.uStatus == uStatus;
  };
  uint64_t u64Last = u64Number;
  const auto after = m_mapRanges.upper_bound({uSource, u64Number});
  const auto before = after == m_mapRanges.begin() ? m_mapRanges.end() : std::prev(after);
  if (after != m_mapRanges.end() && fnJoins(*after) && after->first.second == u64Number + 1) {
    u64Last = after->second.u64Last;
    m_mapRanges.erase(after);
  }
  if (before != m_mapRanges.end() && fnJoins(*before) && before->second.u64Last + 1 == u64Number) {
    before->second.u64Last = u64Last;
  } else {
    m_mapRanges.insert_or_assign({uSource, u64Number}, Range{u64Last, cause, uStatus});
  }
}

void CFailureReport::PrintRanges(size_t uCount) {
  while (uCount-- > 0 && !m_mapRanges.empty()) {
    const auto first = m_mapRanges.begin();
    std::string strLine = m_fnName(first->first.first) + ":" + std::to_string(first->first.second);
    if (first->second.u64Last != first->first.second) {
      strLine += "-" + std::to_string(first->second.u64Last);
    }
    m_fnLine(strLine + ": " + CauseText(first->second.cause, first->second.uStatus));
    m_mapRanges.erase(first);
  }
}

void CFailureReport::Finish() {
  PrintRanges(m_mapRanges.size());
}

uint64_t CFailureReport::Total() const {
  return std::accumulate(std::begin(m_aCounts), std::end(m_aCounts), uint64_t{0});
}
