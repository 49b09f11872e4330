// A producer that a test leads by the hand: blocking, with a long time limit as a guard against hangs.
#ifndef QMLOGCACHE_TESTS_UNIT_HOST_INGRESS_TEST_PRODUCER_H_
#define QMLOGCACHE_TESTS_UNIT_HOST_INGRESS_TEST_PRODUCER_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "host/protocol/ingress_protocol.h"

class CTestProducer {
 public:
  // Connects; with a hello also the welcome is awaited.
  explicit CTestProducer(const std::string& strPath, bool bHello = true);
  ~CTestProducer();
  CTestProducer(const CTestProducer&) = delete;
  CTestProducer& operator=(const CTestProducer&) = delete;

  bool IsConnected() const { return m_iSocket >= 0; }
  const IngressWelcome& Welcome() const { return m_welcome; }

  // False when the other side is gone.
  bool SendBytes(std::string_view svBytes);
  bool SendMessage(uint64_t u64RequestId, std::string_view svPayload, uint32_t uMsgType = 10101);
  void EndOutput();
  void Close();

  bool HasInputWithin(int iMilliseconds) const;
  // A frame without its prefix; nothing when the connection has ended.
  std::optional<std::string> ReadFrame();
  // Answers by request id, with their status.
  std::map<uint64_t, uint32_t> ReadAnswers(size_t uCount);
  // Reads frames up to a failure; nothing when the connection ended without one.
  std::optional<IngressFailure> ReadUntilFailure();
  // True when the connection has ended and nothing more came.
  bool ReadEnd() { return !ReadFrame().has_value(); }

 private:
  bool ReadExactly(char* pBytes, size_t uSize);

  int m_iSocket = -1;
  IngressWelcome m_welcome{0, 0, 0};
};

#endif  // QMLOGCACHE_TESTS_UNIT_HOST_INGRESS_TEST_PRODUCER_H_
