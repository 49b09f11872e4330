// The ingress protocol read a second time, from its description: what a producer's stream must lead to.
#ifndef QMLOGCACHE_TESTS_FUZZ_SUPPORT_INGRESS_READER_H_
#define QMLOGCACHE_TESTS_FUZZ_SUPPORT_INGRESS_READER_H_

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "host/ingress/ingress_server.h"
#include "plugin/compctx/guid.h"

struct Delivered {
  GUID sender{};
  uint32_t uMsgType = 0;
  uint64_t u64RequestId = 0;
  std::string strPayload;
  bool operator==(const Delivered& other) const {
    return memcmp(&sender, &other.sender, sizeof(sender)) == 0 && uMsgType == other.uMsgType &&
           u64RequestId == other.u64RequestId && strPayload == other.strPayload;
  }
};

// How the router answers.
enum class Manner { AnswersAtOnce, Refuses, AnswersLater };

struct Prediction {
  std::vector<Delivered> vecDelivered;
  std::string strOutput;  // frames before the failure; of messages answered later only those ahead of it
  uint32_t uFailure = 0;
};

Prediction Predict(std::string_view svStream, const IngressOptions& options, Manner manner);
// Everything that the connection wrote, to its end.
void CheckOutput(std::string strOutput, const Prediction& prediction, Manner manner);

// Little-endian numbers.
uint32_t Number(std::string_view svBytes, size_t uAt, unsigned int uSize = 4);
std::string Bytes(uint64_t u64Number, unsigned int uSize);

#endif  // QMLOGCACHE_TESTS_FUZZ_SUPPORT_INGRESS_READER_H_
