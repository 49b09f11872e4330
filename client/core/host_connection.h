// The connection to the host: frames out in large writes, answers in. Never blocks.
#ifndef QMLOGCACHE_CLIENT_CORE_HOST_CONNECTION_H_
#define QMLOGCACHE_CLIENT_CORE_HOST_CONNECTION_H_

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "host/protocol/ingress_protocol.h"

class CHostConnection {
 public:
  CHostConnection() = default;
  ~CHostConnection();
  CHostConnection(const CHostConnection&) = delete;
  CHostConnection& operator=(const CHostConnection&) = delete;

  // Connects and says hello. False with a reason. The welcome comes with Receive.
  [[nodiscard]] bool Begin(const std::string& strPath, std::string& strError);
  void Close();
  bool IsOpen() const { return m_iSocket >= 0; }
  // The host has welcomed this side: messages may go.
  bool IsReady() const { return m_bReady; }
  // -1 when closed.
  int Descriptor() const { return m_iSocket; }
  // Of the last connection that became ready.
  const IngressWelcome& Welcome() const { return m_welcome; }

  // Frames to be sent are appended here. After Flush it is shorter than twice what is unsent.
  std::string& Output() { return m_strOutput; }
  size_t Unsent() const { return m_strOutput.size() - m_uSent; }

  // Both return false with a reason once the connection is of no more use; answers that came before it broke are then
  // in vecAnswers all the same.
  [[nodiscard]] bool Flush(std::string& strError);
  // Appends the answers that are there; of a host that floods this side only so many a call. The texts of answers are
  // not kept.
  [[nodiscard]] bool Receive(std::vector<IngressAnswer>& vecAnswers, std::string& strError);

 private:
  bool Connect(const std::string& strPath, std::string& strError);
  bool ReceiveFrames(std::vector<IngressAnswer>& vecAnswers, std::string& strError);
  bool TakeFrames(std::vector<IngressAnswer>& vecAnswers, std::string& strError);
  bool TakeWelcome(std::string_view svFrame, std::string& strError);
  // The next whole frame, or false.
  bool NextFrame(std::string_view& svFrame, std::string& strError);

  int m_iSocket = -1;
  bool m_bReady = false;
  IngressWelcome m_welcome;
  std::string m_strOutput;
  size_t m_uSent = 0;
  std::vector<char> m_vecInput;
  size_t m_uBegin = 0;
  size_t m_uEnd = 0;
  bool m_bWriteBroken = false;
};

#endif  // QMLOGCACHE_CLIENT_CORE_HOST_CONNECTION_H_
