#include "host/link/record_line.h"

#include <charconv>
#include <ctime>

namespace {

constexpr int32_t kPublicPriv = 10;
constexpr int64_t kUsPerSecond = 1000000;

template <typename Number>
void AppendNumber(std::string& strOut, Number number, int iBase = 10) {
  std::array<char, 24> acDigits;
  const auto result = std::to_chars(acDigits.data(), acDigits.data() + acDigits.size(), number, iBase);
  strOut.append(acDigits.data(), result.ptr);
}

}  // namespace

const char* PriorityName(int32_t iPriv) {
  switch (iPriv) {
    case 0:
    case kPublicPriv:
      return "low";
    case 1:
    case kPublicPriv + 1:
      return "normal";
    case 2:
    case kPublicPriv + 2:
      return "high";
    case 3:
    case kPublicPriv + 3:
      return "real";
    default:
      return "other";
  }
}

const char* KindName(int32_t iMsgType) {
  switch (iMsgType) {
    case 1:
      return "edr";
    case 2:
      return "epp";
    case 3:
      return "tag";
    default:
      return "other";
  }
}

void CRecordLine::Append(std::string& strOut, const LinkRecord& record) {
  const TaggedText& tags = record.tags;
  strOut += R"({"dataid":")";
  AppendNumber(strOut, tags.u64DataId, 16);
  strOut += R"(","priority":")";
  strOut += PriorityName(tags.iPriv);
  strOut += tags.iPriv >= kPublicPriv ? R"(","public":true,"kind":")" : R"(","public":false,"kind":")";
  strOut += KindName(tags.iMsgType);
  strOut += R"(","priv":)";
  AppendNumber(strOut, tags.iPriv);
  strOut += R"(,"msgtype":)";
  AppendNumber(strOut, tags.iMsgType);
  strOut += ',';
  m_jsonText.AppendField(strOut, "guid", tags.svGuid);
  strOut += ',';
  m_jsonText.AppendField(strOut, "product", tags.svProduct);
  strOut += ',';
  m_jsonText.AppendField(strOut, "combo", tags.svCombo);
  strOut += ',';
  m_jsonText.AppendField(strOut, "message", tags.svMessage);
  strOut += R"(,"time_received":")";
  AppendTime(strOut, record.i64ReceivedUs);
  strOut += "\"}\n";
}

void CRecordLine::AppendTime(std::string& strOut, int64_t i64Us) {
  int64_t i64Second = i64Us / kUsPerSecond;
  int64_t i64Rest = i64Us % kUsPerSecond;
  if (i64Rest < 0) {
    --i64Second;
    i64Rest += kUsPerSecond;
  }
  if (i64Second != m_i64Second) {
    const time_t tSecond = i64Second;
    tm tmUtc{};
    gmtime_r(&tSecond, &tmUtc);
    if (strftime(m_acSecond.data(), m_acSecond.size(), "%Y-%m-%dT%H:%M:%S", &tmUtc) == 0) {
      m_acSecond[0] = '\0';
    }
    m_i64Second = i64Second;
  }
  strOut += m_acSecond.data();
  std::array<char, 8> acFraction = {'.', '0', '0', '0', '0', '0', '0', 'Z'};
  for (size_t i = 6; i >= 1; --i, i64Rest /= 10) {
    acFraction[i] = static_cast<char>('0' + i64Rest % 10);
  }
  strOut.append(acFraction.data(), acFraction.size());
}
