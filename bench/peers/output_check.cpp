#include "bench/peers/output_check.h"

#include <cerrno>
#include <fstream>
#include <string_view>
#include <system_error>
#include <vector>

#include "bench/peers/loader_lines.h"

namespace {

// The line inside a JSON object; false when there is none. The loader's bytes need only two of the escapes.
bool TakeMessage(std::string_view svObject, std::string& strLine) {
  constexpr std::string_view kMember = "\"message\":\"";
  const size_t uAt = svObject.find(kMember);
  if (uAt == std::string_view::npos) {
    return false;
  }
  strLine.clear();
  for (size_t i = uAt + kMember.size(); i < svObject.size(); ++i) {
    if (svObject[i] == '"') {
      return true;
    }
    if (svObject[i] == '\\' && ++i == svObject.size()) {
      return false;
    }
    strLine += svObject[i];
  }
  return false;
}

}  // namespace

OutputCounts CheckOutput(const std::string& strPath, OutputForm form, uint64_t u64Sent) {
  std::ifstream file(strPath, std::ios::binary);
  if (!file) {
    throw std::system_error(errno, std::generic_category(), strPath);
  }
  OutputCounts counts;
  std::vector<bool> vecSeen(u64Sent);
  CLoaderLines lines;
  std::string strRead;
  std::string strMessage;
  while (std::getline(file, strRead)) {
    ++counts.u64Lines;
    uint64_t u64Number = 0;
    if (form == OutputForm::Json && !TakeMessage(strRead, strMessage)) {
      ++counts.u64Foreign;
      continue;
    }
    const std::string& strLine = form == OutputForm::Json ? strMessage : strRead;
    if (!CLoaderLines::ReadNumber(strLine, u64Number) || u64Number >= u64Sent || strLine != lines.Line(u64Number)) {
      ++counts.u64Foreign;
    } else if (vecSeen[u64Number]) {
      ++counts.u64Repeated;
    } else {
      vecSeen[u64Number] = true;
      ++counts.u64Distinct;
    }
  }
  if (file.bad()) {
    throw std::system_error(EIO, std::generic_category(), strPath);
  }
  return counts;
}
