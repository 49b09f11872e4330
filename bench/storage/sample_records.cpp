#include "bench/storage/sample_records.h"

#include "manager/tagged_text.h"

unsigned long long SampleDataId(size_t uIndex) {
  constexpr unsigned long long kStartSecond = 1700000000;
  constexpr unsigned int kSequenceBits = 32;
  return (kStartSecond << kSequenceBits) | uIndex;
}

std::string SamplePayload(size_t uIndex) {
  constexpr size_t kPayloadSize = 400;
  std::string strText = R"({"event":"process_start","sequence":)" + std::to_string(uIndex) +
                        R"(,"path":"/usr/lib/example/bin/service","user":"daemon","arguments":")";
  constexpr char kEnd[] = "\"}";
  while (strText.size() + sizeof(kEnd) - 1 < kPayloadSize) {
    strText += static_cast<char>('a' + strText.size() % 26);
  }
  return strText + kEnd;
}

CPString SampleText(size_t uIndex) {
  return BuildTaggedText(SampleDataId(uIndex), kSamplePriv, kSampleMsgType, kSampleSender, {}, {},
                         SamplePayload(uIndex));
}
