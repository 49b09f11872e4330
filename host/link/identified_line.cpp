#include "host/link/identified_line.h"

#include <array>
#include <charconv>

void AppendRecordId(std::string& strOut, const std::string& strAgentId, uint64_t u64DataId) {
  std::array<char, 24> acId;
  const auto result = std::to_chars(acId.data(), acId.data() + acId.size(), u64DataId, 16);
  strOut += strAgentId;
  strOut += '/';
  strOut.append(acId.data(), result.ptr);
}

void AppendIdentifiedLine(std::string& strOut, const std::string& strAgentId, const LinkRecord& record,
                          CRecordLine& recordLine) {
  strOut += R"({"id":")";
  AppendRecordId(strOut, strAgentId, record.tags.u64DataId);
  strOut += '"';
  const size_t uBrace = strOut.size();
  recordLine.Append(strOut, record);
  // The line's own opening brace becomes the comma behind the id.
  strOut[uBrace] = ',';
}
