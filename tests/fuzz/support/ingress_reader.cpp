#include "tests/fuzz/support/ingress_reader.h"

#include <utility>

#include "host/protocol/host_status.h"
#include "tests/fuzz/support/fuzz_check.h"

namespace {

void AppendAnswerFrame(std::string& strOut, uint32_t uStatus, uint64_t u64RequestId, std::string_view svText) {
  strOut += Bytes(16 + svText.size(), 4) + std::string("\4\0\0\0", 4) + Bytes(uStatus, 4) + Bytes(u64RequestId, 8);
  strOut += svText;
}

}  // namespace

uint32_t Number(std::string_view svBytes, size_t uAt, unsigned int uSize) {
  uint32_t uNumber = 0;
  for (unsigned int i = uSize; i > 0; --i) {
    uNumber = uNumber << 8 | static_cast<unsigned char>(svBytes[uAt + i - 1]);
  }
  return uNumber;
}

std::string Bytes(uint64_t u64Number, unsigned int uSize) {
  std::string strBytes;
  for (unsigned int i = 0; i < uSize; ++i) {
    strBytes += static_cast<char>(u64Number >> (8 * i) & 0xff);
  }
  return strBytes;
}

Prediction Predict(std::string_view svStream, const IngressOptions& options, Manner manner) {
  Prediction prediction;
  bool bGreeted = false;
  while (svStream.size() >= 4) {
    const uint32_t uLength = Number(svStream, 0);
    if (!bGreeted && uLength != 12) {
      prediction.uFailure = 1;
      return prediction;
    }
    if (uLength > options.uMaxFrame) {
      prediction.uFailure = 2;
      return prediction;
    }
    if (svStream.size() - 4 < uLength) {
      break;
    }
    const std::string_view svFrame = svStream.substr(4, uLength);
    svStream.remove_prefix(4 + size_t{uLength});
    if (!bGreeted) {
      if (svFrame.substr(0, 8) != std::string_view("\1\0\0\0QMIN", 8)) {
        prediction.uFailure = 1;
        return prediction;
      }
      if (Number(svFrame, 8) != 1) {
        prediction.uFailure = 4;
        return prediction;
      }
      bGreeted = true;
      prediction.strOutput += Bytes(20, 4) + std::string("\2\0\0\0QMIN\1\0\0\0", 12) + Bytes(options.uMaxFrame, 4) +
                              Bytes(options.uWindow, 4);
      continue;
    }
    if (svFrame.size() < 32 || svFrame.substr(0, 4) != std::string_view("\3\0\0\0", 4)) {
      prediction.uFailure = 1;
      return prediction;
    }
    if (manner == Manner::AnswersLater && prediction.vecDelivered.size() >= options.uWindow) {
      prediction.uFailure = 5;
      return prediction;
    }
    Delivered delivered;
    delivered.uMsgType = Number(svFrame, 4);
    delivered.u64RequestId = Number(svFrame, 8) | static_cast<uint64_t>(Number(svFrame, 12)) << 32;
    delivered.sender.Data1 = Number(svFrame, 16);
    delivered.sender.Data2 = static_cast<uint16_t>(Number(svFrame, 20, 2));
    delivered.sender.Data3 = static_cast<uint16_t>(Number(svFrame, 22, 2));
    memcpy(delivered.sender.Data4, svFrame.data() + 24, 8);
    delivered.strPayload = svFrame.substr(32);
    if (manner != Manner::AnswersLater) {
      const bool bRefused = manner == Manner::Refuses;
      AppendAnswerFrame(prediction.strOutput, bRefused ? kHostNoReceiver : 0, delivered.u64RequestId,
                        bRefused ? "" : "success");
    }
    prediction.vecDelivered.push_back(std::move(delivered));
  }
  return prediction;
}

void CheckOutput(std::string strOutput, const Prediction& prediction, Manner manner) {
  FUZZ_CHECK(strOutput.starts_with(prediction.strOutput));
  strOutput.erase(0, prediction.strOutput.size());
  size_t uLateAnswers = 0;
  while (manner == Manner::AnswersLater && strOutput.size() >= 20 && strOutput[4] == 4) {
    std::string strExpected;
    AppendAnswerFrame(strExpected, 0, prediction.vecDelivered.at(uLateAnswers).u64RequestId, "success");
    FUZZ_CHECK(strOutput.starts_with(strExpected));
    strOutput.erase(0, strExpected.size());
    ++uLateAnswers;
  }
  if (prediction.uFailure == 0) {
    FUZZ_CHECK(strOutput.empty());
    FUZZ_CHECK(uLateAnswers == (manner == Manner::AnswersLater ? prediction.vecDelivered.size() : 0));
    return;
  }
  FUZZ_CHECK(strOutput.size() >= 12 && Number(strOutput, 0) == strOutput.size() - 4);
  FUZZ_CHECK(Number(strOutput, 4) == 5 && Number(strOutput, 8) == prediction.uFailure);
}
