#include "host/link/nats/nats_names.h"

#include <algorithm>

#include "host/link/record_line.h"

namespace {

constexpr size_t kLongestName = 128;

bool IsNameByte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

// Takes the first token off, with the dot behind it. bLast: nothing is left behind the token.
std::string_view TakeToken(std::string_view& svRest, bool& bLast) {
  const size_t uDot = svRest.find('.');
  const std::string_view svToken = svRest.substr(0, uDot);
  bLast = uDot == std::string_view::npos;
  svRest.remove_prefix(bLast ? svRest.size() : uDot + 1);
  return svToken;
}

bool IsToken(std::string_view svToken) {
  return !svToken.empty() && std::all_of(svToken.begin(), svToken.end(), IsNameByte);
}

}  // namespace

std::string CheckSubjectPrefix(std::string_view svPrefix) {
  const std::string strQuoted = "\"" + std::string(svPrefix) + "\"";
  if (svPrefix.size() > kLongestName) {
    return strQuoted + " is longer than 128 bytes";
  }
  std::string_view svRest = svPrefix;
  for (bool bLast = false; !bLast;) {
    if (!IsToken(TakeToken(svRest, bLast))) {
      return strQuoted + " is no subject prefix: letters, digits, - and _, in tokens with a dot in between";
    }
  }
  if (svPrefix.substr(0, svPrefix.find('.')) == "_INBOX") {
    return "subjects under _INBOX are the server's own";
  }
  return {};
}

std::string CheckStreamName(std::string_view svName) {
  if (svName.size() > kLongestName || !IsToken(svName)) {
    return "\"" + std::string(svName) + "\" is no stream's name: 1 to 128 letters, digits, - and _";
  }
  return {};
}

void AppendSubject(std::string& strOut, const std::string& strPrefix, const std::string& strAgentId,
                   const TaggedText& tags) {
  strOut += strPrefix;
  strOut += '.';
  strOut += strAgentId;
  strOut += '.';
  strOut += KindName(tags.iMsgType);
  strOut += '.';
  strOut += PriorityName(tags.iPriv);
}

std::vector<std::string> AllSubjects(const std::string& strPrefix, const std::string& strAgentId) {
  // One number past those that have a word, for "other".
  constexpr int32_t kKinds = 4;
  constexpr int32_t kPriorities = 5;
  std::vector<std::string> vecSubjects;
  for (int32_t iKind = 1; iKind <= kKinds; ++iKind) {
    for (int32_t iPriority = 0; iPriority < kPriorities; ++iPriority) {
      TaggedText tags;
      tags.iMsgType = iKind;
      tags.iPriv = iPriority;
      AppendSubject(vecSubjects.emplace_back(), strPrefix, strAgentId, tags);
    }
  }
  return vecSubjects;
}

bool SubjectMatches(std::string_view svPattern, std::string_view svSubject) {
  for (bool bPatternEnds = false, bSubjectEnds = false;;) {
    const std::string_view svWanted = TakeToken(svPattern, bPatternEnds);
    if (svWanted == ">") {
      return bPatternEnds;
    }
    const std::string_view svToken = TakeToken(svSubject, bSubjectEnds);
    if (svWanted != "*" && svWanted != svToken) {
      return false;
    }
    if (bPatternEnds || bSubjectEnds) {
      return bPatternEnds && bSubjectEnds;
    }
  }
}
