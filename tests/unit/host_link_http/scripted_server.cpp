#include "scripted_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

namespace {

// Takes bytes off the connection until strBuffer holds as many; false when it ends.
bool Fill(int iFd, std::string& strBuffer, const std::function<bool()>& fnEnough) {
  while (!fnEnough()) {
    char acBytes[4096];
    const ssize_t iRead = recv(iFd, acBytes, sizeof(acBytes), 0);
    if (iRead <= 0) {
      return false;
    }
    strBuffer.append(acBytes, static_cast<size_t>(iRead));
  }
  return true;
}

std::string Unpack(const std::string& strGzip) {
  z_stream stream{};
  inflateInit2(&stream, 15 + 16);
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(strGzip.data()));
  stream.avail_in = static_cast<uInt>(strGzip.size());
  std::string strBytes;
  for (int iResult = Z_OK; iResult == Z_OK;) {
    char acOut[4096];
    stream.next_out = reinterpret_cast<Bytef*>(acOut);
    stream.avail_out = sizeof(acOut);
    iResult = inflate(&stream, Z_NO_FLUSH);
    strBytes.append(acOut, sizeof(acOut) - stream.avail_out);
  }
  inflateEnd(&stream);
  return strBytes;
}

std::vector<uint64_t> IdsOf(const std::string& strBody) {
  std::vector<uint64_t> vecIds;
  std::istringstream stream(Unpack(strBody));
  for (std::string strLine; std::getline(stream, strLine);) {
    vecIds.push_back(std::stoull(nlohmann::json::parse(strLine)["dataid"].get<std::string>(), nullptr, 16));
  }
  return vecIds;
}

}  // namespace

std::string StatusAnswer(int iStatus, const std::string& strHeader) {
  return "HTTP/1.1 " + std::to_string(iStatus) + " X\r\nContent-Length: 0\r\n" + strHeader + "\r\n";
}

CScriptedServer::CScriptedServer(AnswerFunction fnAnswer) : m_fnAnswer(std::move(fnAnswer)) {
  m_iListenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t uLength = sizeof(address);
  if (bind(m_iListenFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(m_iListenFd, 16) != 0 ||
      getsockname(m_iListenFd, reinterpret_cast<sockaddr*>(&address), &uLength) != 0) {
    throw std::runtime_error("no port for the test's server");
  }
  m_uPort = ntohs(address.sin_port);
  m_thread = std::thread([this] { Listen(); });
}

CScriptedServer::~CScriptedServer() {
  shutdown(m_iListenFd, SHUT_RDWR);
  m_thread.join();
  close(m_iListenFd);
  std::list<std::thread> lstThreads;
  {
    const std::lock_guard lock(m_mutex);
    for (const int iFd : m_vecFds) {
      shutdown(iFd, SHUT_RDWR);
    }
    lstThreads.swap(m_lstThreads);
  }
  for (std::thread& thread : lstThreads) {
    thread.join();
  }
}

std::vector<ServedRequest> CScriptedServer::Requests() const {
  const std::lock_guard lock(m_mutex);
  return m_vecRequests;
}

size_t CScriptedServer::CountConnections() const {
  const std::lock_guard lock(m_mutex);
  return m_lstThreads.size();
}

void CScriptedServer::Listen() {
  for (int iFd = accept(m_iListenFd, nullptr, nullptr); iFd >= 0; iFd = accept(m_iListenFd, nullptr, nullptr)) {
    const std::lock_guard lock(m_mutex);
    m_vecFds.push_back(iFd);
    m_lstThreads.emplace_back([this, iFd] { Serve(iFd); });
  }
}

void CScriptedServer::Serve(int iFd) {
  std::string strBuffer;
  for (bool bOpen = true; bOpen;) {
    size_t uHeader = std::string::npos;
    if (!Fill(iFd, strBuffer, [&] { return (uHeader = strBuffer.find("\r\n\r\n")) != std::string::npos; })) {
      break;
    }
    ServedRequest request;
    request.strHeader = strBuffer.substr(0, uHeader + 2);
    const size_t uField = request.strHeader.find("Content-Length: ");
    const size_t uEnd = uHeader + 4 + std::stoul(request.strHeader.substr(uField + 16));
    if (!Fill(iFd, strBuffer, [&] { return strBuffer.size() >= uEnd; })) {
      break;
    }
    request.strBody = strBuffer.substr(uHeader + 4, uEnd - uHeader - 4);
    request.vecIds = IdsOf(request.strBody);
    strBuffer.erase(0, uEnd);
    {
      const std::lock_guard lock(m_mutex);
      m_vecRequests.push_back(request);
    }
    const std::string strAnswer = m_fnAnswer(request);
    bOpen = !strAnswer.empty() && send(iFd, strAnswer.data(), strAnswer.size(), MSG_NOSIGNAL) > 0;
  }
  const std::lock_guard lock(m_mutex);
  m_vecFds.erase(std::find(m_vecFds.begin(), m_vecFds.end(), iFd));
  close(iFd);
}
