#include "tools/qmsend/status_text.h"

#include <cstdio>

#include "host/protocol/host_status.h"
#include "platform/status_codes.h"

namespace {

constexpr size_t kExcerptBytes = 48;

struct StatusWords {
  uint32_t uStatus;
  const char* pszWords;
};

constexpr uint32_t Bits(int iStatus) {
  return static_cast<uint32_t>(iStatus);
}

constexpr StatusWords kStatusWords[] = {
    {kHostNoReceiver, "no component takes messages of this type"},
    {kHostNotAllowed, "producers may not send this type"},
    {kHostNoDestination, "no such component"},
    {kHostStopping, "the host or the component is stopping"},
    {kHostNoReply, "the component did not answer in time"},
    {kHostBadArgument, "bad argument"},
    {kHostNoMemory, "the host is out of memory"},
    {Bits(kStatusEmptyData), "the record is empty"},
    {Bits(kStatusBadSize), "the record is shorter than it says"},
    {Bits(kStatusUnknownType), "unknown message type"},
    {Bits(kStatusCountLimit), "too many records in memory"},
    {Bits(kStatusNoObject), "the component has no cache file or context"},
    {Bits(kStatusNoResource), "the component is not running or out of memory"},
};

}  // namespace

std::string StatusText(uint32_t uStatus) {
  char szHex[16];
  std::snprintf(szHex, sizeof(szHex), "0x%08X", uStatus);
  std::string strText = szHex;
  for (const StatusWords& words : kStatusWords) {
    if (words.uStatus == uStatus) {
      strText.append(" (").append(words.pszWords).append(")");
    }
  }
  return strText;
}

std::string Excerpt(std::string_view svBytes, bool bMore) {
  std::string strText = "\"";
  for (const char c : svBytes.substr(0, kExcerptBytes)) {
    if (c == '"' || c == '\\') {
      strText += '\\';
      strText += c;
    } else if (c >= 0x20 && c < 0x7F) {
      strText += c;
    } else {
      char szEscape[8];
      std::snprintf(szEscape, sizeof(szEscape), "\\x%02X", static_cast<unsigned char>(c));
      strText += szEscape;
    }
  }
  strText += bMore || svBytes.size() > kExcerptBytes ? "\"..." : "\"";
  return strText;
}
