#include "client/core/status_words.h"

#include "host/protocol/host_status.h"
#include "platform/status_codes.h"

namespace {

struct Words {
  uint32_t uStatus;
  const char* pszWords;
  bool bRecordAtFault;
};

constexpr uint32_t Bits(int iStatus) {
  return static_cast<uint32_t>(iStatus);
}

constexpr Words kWords[] = {
    {kHostNoReceiver, "no component takes messages of this type", false},
    {kHostNotAllowed, "producers may not send this type", true},
    {kHostNoDestination, "no such component", false},
    {kHostStopping, "the host or the component is stopping", false},
    {kHostNoReply, "the component did not answer in time", false},
    {kHostBadArgument, "bad argument", false},
    {kHostNoMemory, "the host is out of memory", false},
    {Bits(kStatusEmptyData), "the record is empty", true},
    {Bits(kStatusBadSize), "the record is shorter than it says", true},
    {Bits(kStatusUnknownType), "unknown message type", true},
    {Bits(kStatusCountLimit), "too many records in memory", false},
    {Bits(kStatusNoObject), "the component has no cache file or context", false},
    {Bits(kStatusNoResource), "the component is not running or out of memory", false},
};

const Words* Find(uint32_t uStatus) {
  for (const Words& words : kWords) {
    if (words.uStatus == uStatus) {
      return &words;
    }
  }
  return nullptr;
}

}  // namespace

const char* StatusWords(uint32_t uStatus) {
  const Words* pWords = Find(uStatus);
  return pWords == nullptr ? nullptr : pWords->pszWords;
}

bool IsOutcomeUnknown(uint32_t uStatus) {
  return uStatus == kHostNoReply;
}

bool IsRecordAtFault(uint32_t uStatus) {
  const Words* pWords = Find(uStatus);
  return pWords != nullptr && pWords->bRecordAtFault;
}
