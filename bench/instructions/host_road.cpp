#include "bench/instructions/host_road.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "bench/instructions/single_thread_component.h"
#include "host/ingress/connection.h"
#include "host/protocol/ingress_protocol.h"
#include "message/receive.h"
#include "plugin/compctx/message_types.h"

namespace {

[[noreturn]] void Fail(const std::string& strWhat) {
  throw std::runtime_error(strWhat + ": " + std::strerror(errno));
}

std::array<int, 2> SocketPair() {
  std::array<int, 2> sockets{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()) != 0) {
    Fail("socketpair");
  }
  return sockets;
}

void WriteAll(int iSocket, const std::string& strBytes) {
  if (send(iSocket, strBytes.data(), strBytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) !=
      static_cast<ssize_t>(strBytes.size())) {
    Fail("the socket does not take the frames");
  }
}

}  // namespace

struct CHostRoad::Parts {
  Parts()
      : pRouter(CreateRouter({})),
        pContext(pRouter->CreateContext()),
        environment{options, *pRouter, log, [](CConnection* /*pClosed*/) {}},
        sockets(SocketPair()),
        pConnection(std::make_shared<CConnection>(
            CConnection::Socket(boost::asio::make_strand(ioContext), boost::asio::local::stream_protocol(), sockets[1]),
            environment, "the producer")) {}
  ~Parts() {
    pConnection->Abort();
    ioContext.poll();
    close(sockets[0]);
    pContext->Uninitialize();
  }
  Parts(const Parts&) = delete;
  Parts& operator=(const Parts&) = delete;

  const IngressOptions options;
  CLimitedLog log;
  const std::unique_ptr<IRouter> pRouter;
  const std::shared_ptr<IHostContext> pContext;
  const CConnection::Environment environment;
  boost::asio::io_context ioContext;
  const std::array<int, 2> sockets;  // the producer's end, the host's
  const std::shared_ptr<CConnection> pConnection;
  const std::string strPayload = std::string(kPayloadSize, 'x');
  uint64_t u64LastRequest = 0;
};

CHostRoad::CHostRoad() : m_pParts(std::make_unique<Parts>()) {
  GUID component{};
  static_cast<void>(ParseGuid(kComponentGuidText, component));  // a constant of the right form
  if (m_pParts->pContext->Initialize(component) != 0 ||
      m_pParts->pContext->Receive(LOGCACHE_MSG_SYNC_EDR_PRIV_NORMAL, &CLogCacheReceive::m_gReceive,
                                  static_cast<IComponentContext*>(m_pParts->pContext.get())) != 0) {
    throw std::runtime_error("the router refuses the component");
  }
  m_pParts->pConnection->Start();
  std::string strHello;
  AppendHello(strHello);
  WriteAll(m_pParts->sockets[0], strHello);
  TakeFrames();
  std::array<char, 256> acWelcome{};
  if (recv(m_pParts->sockets[0], acWelcome.data(), acWelcome.size(), MSG_DONTWAIT) <= 0) {
    Fail("no welcome");
  }
}

CHostRoad::~CHostRoad() = default;

IComponentContext& CHostRoad::Context() {
  return *m_pParts->pContext;
}

void CHostRoad::WriteFrames(unsigned int uRecords) {
  std::string strFrames;
  for (unsigned int i = 0; i < uRecords; ++i) {
    AppendMessage(strFrames,
                  {LOGCACHE_MSG_SYNC_EDR_PRIV_NORMAL, ++m_pParts->u64LastRequest, kSender, m_pParts->strPayload});
  }
  WriteAll(m_pParts->sockets[0], strFrames);
}

void CHostRoad::TakeFrames() {
  m_pParts->ioContext.poll();
}

void CHostRoad::ReadAnswers(unsigned int uRecords) {
  std::string strAnswers(64U << 10U, '\0');
  const ssize_t lRead = recv(m_pParts->sockets[0], strAnswers.data(), strAnswers.size(), MSG_DONTWAIT);
  if (lRead <= 0) {
    Fail("no answers");
  }
  std::string_view svLeft(strAnswers.data(), static_cast<size_t>(lRead));
  unsigned int uAccepted = 0;
  while (svLeft.size() >= kIngressPrefixSize) {
    const uint32_t uLength = ReadFrameLength(svLeft.data());
    IngressAnswer answer;
    if (svLeft.size() - kIngressPrefixSize < uLength ||
        !ReadAnswer(svLeft.substr(kIngressPrefixSize, uLength), answer) || answer.uStatus != 0) {
      throw std::runtime_error("a message was not accepted");
    }
    ++uAccepted;
    svLeft.remove_prefix(kIngressPrefixSize + uLength);
  }
  if (uAccepted != uRecords) {
    throw std::runtime_error("answers are missing");
  }
}
