#include "host/link/record_line.h"

#include <cstring>
#include <ctime>

#include "host/protocol/record_priority.h"
#include "platform/number_text.h"

namespace {

constexpr int32_t kPublicPriv = 10;
constexpr int64_t kUsPerSecond = 1000000;

}  // namespace

const char* PriorityName(int32_t iPriv) {
  return kPriorityNames[PriorityOfPrivilege(iPriv)];
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

// Gathers the short pieces of a line, so that it grows in a few steps. What is gathered is in the line after Flush.
class CRecordLine::CShortText {
 public:
  explicit CShortText(std::string& strLine) : m_strLine(strLine) {}
  CShortText(const CShortText&) = delete;
  CShortText& operator=(const CShortText&) = delete;

  // Inlined, so that a literal is stored and not copied by a call.
  [[gnu::always_inline]] void Put(std::string_view svPiece) {
    if (svPiece.size() > m_acGathered.size() - m_uSize) {
      Flush() += svPiece;
    } else if (!svPiece.empty()) {
      std::memcpy(m_acGathered.data() + m_uSize, svPiece.data(), svPiece.size());
      m_uSize += svPiece.size();
    }
  }

  std::string& Flush() {
    m_strLine.append(m_acGathered.data(), m_uSize);
    m_uSize = 0;
    return m_strLine;
  }

 private:
  std::string& m_strLine;
  std::array<char, 384> m_acGathered{};
  size_t m_uSize = 0;
};

void CRecordLine::Append(std::string& strOut, const LinkRecord& record) {
  const TaggedText& tags = record.tags;
  CShortText text(strOut);
  text.Put(R"({"dataid":")");
  text.Put(CNumberText(tags.u64DataId, 16).View());
  text.Put(R"(","priority":")");
  text.Put(PriorityName(tags.iPriv));
  text.Put(tags.iPriv >= kPublicPriv ? R"(","public":true,"kind":")" : R"(","public":false,"kind":")");
  text.Put(KindName(tags.iMsgType));
  text.Put(R"(","priv":)");
  text.Put(CNumberText(tags.iPriv).View());
  text.Put(R"(,"msgtype":)");
  text.Put(CNumberText(tags.iMsgType).View());
  PutField(text, "guid", tags.svGuid);
  PutField(text, "product", tags.svProduct);
  PutField(text, "combo", tags.svCombo);
  PutField(text, "message", tags.svMessage);
  text.Put(R"(,"time_received":")");
  PutTime(text, record.i64ReceivedUs);
  text.Put("\"}\n");
  text.Flush();
}

void CRecordLine::PutField(CShortText& text, std::string_view svName, std::string_view svText) {
  if (!IsPlainJson(svText)) {
    text.Put(",");
    m_jsonText.AppendField(text.Flush(), svName, svText);
    return;
  }
  text.Put(R"(,")");
  text.Put(svName);
  text.Put(R"(":")");
  text.Put(svText);
  text.Put(R"(")");
}

void CRecordLine::PutTime(CShortText& text, int64_t i64Us) {
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
    m_uSecondSize = strftime(m_acSecond.data(), m_acSecond.size(), "%Y-%m-%dT%H:%M:%S", &tmUtc);
    m_i64Second = i64Second;
  }
  text.Put({m_acSecond.data(), m_uSecondSize});
  std::array<char, 8> acFraction = {'.', '0', '0', '0', '0', '0', '0', 'Z'};
  for (size_t i = 6; i >= 1; --i, i64Rest /= 10) {
    acFraction[i] = static_cast<char>('0' + i64Rest % 10);
  }
  text.Put({acFraction.data(), acFraction.size()});
}
