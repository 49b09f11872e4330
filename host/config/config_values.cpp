#include "host/config/config_values.h"

#include <arpa/inet.h>
#include <pwd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <limits>
#include <numeric>

#include "plugin/compctx/guid.h"

namespace {

constexpr unsigned int kLeastLevel = 1;
constexpr unsigned int kMostLevel = 6;

std::string Quoted(std::string_view svValue) {
  return "\"" + std::string(svValue) + "\"";
}

bool ParseNumber(std::string_view svValue, uint64_t& u64Read) {
  const char* pEnd = svValue.data() + svValue.size();
  const auto [pStop, error] = std::from_chars(svValue.data(), pEnd, u64Read);
  // A number too long for its type is a number all the same, one that no bound allows.
  if (error == std::errc::result_out_of_range) {
    u64Read = std::numeric_limits<uint64_t>::max();
    return pStop == pEnd;
  }
  return error == std::errc() && pStop == pEnd;
}

std::vector<std::string_view> SplitList(std::string_view svList) {
  std::vector<std::string_view> vecItems;
  while (true) {
    const size_t uComma = std::min(svList.find(','), svList.size());
    std::string_view svItem = svList.substr(0, uComma);
    svItem.remove_prefix(std::min(svItem.find_first_not_of(" \t"), svItem.size()));
    svItem = svItem.substr(0, svItem.find_last_not_of(" \t") + 1);
    vecItems.push_back(svItem);
    if (uComma == svList.size()) {
      return vecItems;
    }
    svList.remove_prefix(uComma + 1);
  }
}

std::string CheckRange(std::string_view svValue, uint64_t u64Number, uint64_t u64Least, uint64_t u64Most) {
  if (u64Number >= u64Least && u64Number <= u64Most) {
    return {};
  }
  return Quoted(svValue) + " is not between " + std::to_string(u64Least) + " and " + std::to_string(u64Most);
}

std::string ReadUser(std::string_view svUser, uid_t& uidRead) {
  // The highest number means "no user" to the system.
  constexpr uint64_t kMostUser = std::numeric_limits<uid_t>::max() - 1;
  uint64_t u64Number = 0;
  if (ParseNumber(svUser, u64Number)) {
    uidRead = static_cast<uid_t>(u64Number);
    return CheckRange(svUser, u64Number, 0, kMostUser);
  }
  constexpr size_t kMostBuffer = 1U << 20;
  const std::string strUser(svUser);
  std::vector<char> vecBuffer(1024);
  passwd entry{};
  passwd* pFound = nullptr;
  while (getpwnam_r(strUser.c_str(), &entry, vecBuffer.data(), vecBuffer.size(), &pFound) == ERANGE &&
         vecBuffer.size() < kMostBuffer) {
    vecBuffer.resize(vecBuffer.size() * 2);
  }
  if (pFound == nullptr) {
    return "there is no user " + Quoted(svUser);
  }
  uidRead = pFound->pw_uid;
  return {};
}

}  // namespace

std::string ReadNumber(std::string_view svValue, uint64_t u64Least, uint64_t u64Most, uint64_t& u64Read) {
  if (!ParseNumber(svValue, u64Read)) {
    return Quoted(svValue) + " is not a number";
  }
  return CheckRange(svValue, u64Read, u64Least, u64Most);
}

std::string ReadSize(std::string_view svValue, uint64_t u64Least, uint64_t u64Most, uint64_t& u64Read) {
  unsigned int uShift = 0;
  std::string_view svNumber = svValue;
  if (!svNumber.empty()) {
    switch (std::toupper(static_cast<unsigned char>(svNumber.back()))) {
      case 'K':
        uShift = 10;
        break;
      case 'M':
        uShift = 20;
        break;
      case 'G':
        uShift = 30;
        break;
      default:
        break;
    }
    svNumber.remove_suffix(uShift != 0 ? 1 : 0);
  }
  if (!ParseNumber(svNumber, u64Read)) {
    return Quoted(svValue) + " is not a size (a number, followed by K, M or G or nothing)";
  }
  const bool bTooLong = u64Read > (std::numeric_limits<uint64_t>::max() >> uShift);
  u64Read = bTooLong ? std::numeric_limits<uint64_t>::max() : u64Read << uShift;
  return CheckRange(svValue, u64Read, u64Least, u64Most);
}

std::string ReadSwitch(std::string_view svValue, bool& bRead) {
  std::string strLower(svValue);
  std::transform(strLower.begin(), strLower.end(), strLower.begin(),
                 [](unsigned char cByte) { return static_cast<char>(std::tolower(cByte)); });
  bRead = strLower == "yes" || strLower == "true" || strLower == "on" || strLower == "1";
  if (bRead || strLower == "no" || strLower == "false" || strLower == "off" || strLower == "0") {
    return {};
  }
  return Quoted(svValue) + " is neither yes nor no";
}

std::string ReadWord(std::string_view svValue, const std::vector<std::string>& vecWords, size_t& uRead) {
  const auto it = std::find(vecWords.begin(), vecWords.end(), svValue);
  if (it != vecWords.end()) {
    uRead = static_cast<size_t>(it - vecWords.begin());
    return {};
  }
  std::string strKnown;
  for (const std::string& strWord : vecWords) {
    strKnown += (strKnown.empty() ? "" : ", ") + strWord;
  }
  return Quoted(svValue) + " is not one of: " + strKnown;
}

std::string ReadLevels(std::string_view svValue, unsigned int& uRead) {
  uRead = 0;
  for (const std::string_view svLevel : SplitList(svValue)) {
    uint64_t u64Level = 0;
    std::string strWrong = ReadNumber(svLevel, kLeastLevel, kMostLevel, u64Level);
    if (!strWrong.empty()) {
      return strWrong;
    }
    uRead |= u64Level <= kMostLevel ? 1U << u64Level : 0U;
  }
  return {};
}

std::string ReadUsers(std::string_view svValue, std::vector<uid_t>& vecRead) {
  vecRead.clear();
  if (svValue.empty()) {
    return {};
  }
  for (const std::string_view svUser : SplitList(svValue)) {
    uid_t uidUser = 0;
    std::string strWrong = svUser.empty() ? "a user is missing between two commas" : ReadUser(svUser, uidUser);
    if (!strWrong.empty()) {
      return strWrong;
    }
    vecRead.push_back(uidUser);
  }
  return {};
}

std::string ReadPath(std::string_view svValue, const std::string& strPrefix, std::string& strRead) {
  if (svValue.empty()) {
    return "the path is empty";
  }
  strRead = (std::filesystem::path(strPrefix) / svValue).lexically_normal().string();
  return {};
}

std::string ReadGuid(std::string_view svValue, std::string& strRead) {
  const std::string strValue(svValue);
  GUID guid{};
  if (strValue.size() != kGuidTextLength || !ParseGuid(strValue.c_str(), guid)) {
    return Quoted(svValue) + " is not a GUID";
  }
  std::array<char, kGuidBufferSize> arrText{};
  FormatGuid(guid, arrText.data());
  strRead = arrText.data();
  // The parser is lenient with blanks and signs inside a field; what comes out must be what went in.
  const bool bSame = std::equal(strRead.begin(), strRead.end(), strValue.begin(), strValue.end(),
                                [](char c1, char c2) { return c1 == std::toupper(static_cast<unsigned char>(c2)); });
  return bSame ? std::string() : Quoted(svValue) + " is not a GUID";
}

std::string ReadLoopbackAddress(std::string_view svValue, std::string& strAddress, uint16_t& uPort) {
  const size_t uColon = svValue.rfind(':');
  std::string strForm = Quoted(svValue) + " is not an address and a port, such as 127.0.0.1:9478 or [::1]:9478";
  if (uColon == std::string_view::npos) {
    return strForm;
  }
  std::string strRead(svValue.substr(0, uColon));
  const bool bBrackets = strRead.size() > 2 && strRead.front() == '[' && strRead.back() == ']';
  if (bBrackets) {
    strRead = strRead.substr(1, strRead.size() - 2);
  }
  in_addr fourth{};
  in6_addr sixth{};
  const bool bFourth = !bBrackets && inet_pton(AF_INET, strRead.c_str(), &fourth) == 1;
  const bool bSixth = bBrackets && inet_pton(AF_INET6, strRead.c_str(), &sixth) == 1;
  if (!bFourth && !bSixth) {
    return strForm;
  }
  if (bFourth ? ntohl(fourth.s_addr) >> 24U != 127 : !IN6_IS_ADDR_LOOPBACK(&sixth)) {
    return Quoted(svValue) + " can be reached from elsewhere; only 127.0.0.0/8 and [::1] are taken";
  }
  uint64_t u64Port = 0;
  std::string strWrong = ReadNumber(svValue.substr(uColon + 1), 1, UINT16_MAX, u64Port);
  if (strWrong.empty()) {
    strAddress = bSixth ? "::1" : strRead;
    uPort = static_cast<uint16_t>(u64Port);
  }
  return strWrong;
}

std::string NearestWord(std::string_view svWord, const std::vector<std::string>& vecWords) {
  std::string strNearest;
  // More than a third of the letters wrong is another word.
  size_t uBest = svWord.size() / 3 + 2;
  for (const std::string& strWord : vecWords) {
    // Levenshtein distance, one row at a time.
    std::vector<size_t> vecRow(svWord.size() + 1);
    std::iota(vecRow.begin(), vecRow.end(), size_t{0});
    for (size_t uLine = 1; uLine <= strWord.size(); ++uLine) {
      size_t uDiagonal = vecRow[0];
      vecRow[0] = uLine;
      for (size_t uColumn = 1; uColumn <= svWord.size(); ++uColumn) {
        const size_t uReplaced = uDiagonal + (strWord[uLine - 1] == svWord[uColumn - 1] ? 0 : 1);
        uDiagonal = vecRow[uColumn];
        vecRow[uColumn] = std::min({vecRow[uColumn] + 1, vecRow[uColumn - 1] + 1, uReplaced});
      }
    }
    if (vecRow.back() < uBest) {
      uBest = vecRow.back();
      strNearest = strWord;
    }
  }
  return strNearest;
}
