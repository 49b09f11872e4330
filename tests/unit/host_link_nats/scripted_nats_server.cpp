#include "scripted_nats_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

namespace {

// What comes on a connection, line by line and piece by piece.
class CReader {
 public:
  explicit CReader(int iFd) : m_iFd(iFd) {}

  // Without its line break; false at the end.
  bool Line(std::string& strLine) {
    size_t uEnd = 0;
    while ((uEnd = m_strBuffer.find("\r\n")) == std::string::npos) {
      if (!Fill()) {
        return false;
      }
    }
    return Take(uEnd, strLine);
  }
  // So many bytes, and a line break.
  bool Piece(size_t uBytes, std::string& strPiece) {
    while (m_strBuffer.size() < uBytes + 2) {
      if (!Fill()) {
        return false;
      }
    }
    return Take(uBytes, strPiece);
  }

 private:
  bool Fill() {
    char acBytes[4096];
    const ssize_t iRead = recv(m_iFd, acBytes, sizeof(acBytes), 0);
    m_strBuffer.append(acBytes, iRead > 0 ? static_cast<size_t>(iRead) : 0);
    return iRead > 0;
  }
  bool Take(size_t uBytes, std::string& strOut) {
    strOut = m_strBuffer.substr(0, uBytes);
    m_strBuffer.erase(0, uBytes + 2);
    return true;
  }

  const int m_iFd;
  std::string m_strBuffer;
};

bool Send(int iFd, const std::string& strBytes) {
  return send(iFd, strBytes.data(), strBytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(strBytes.size());
}

std::string StreamInfo() {
  const nlohmann::json config = {{"name", "s"},         {"subjects", {">"}},  {"retention", "limits"},
                                 {"max_consumers", -1}, {"max_msgs", -1},     {"max_bytes", -1},
                                 {"max_age", 0},        {"max_msg_size", -1}, {"discard", "new"},
                                 {"storage", "file"},   {"num_replicas", 1}};
  return nlohmann::json({{"type", "io.nats.jetstream.api.v1.stream_info_response"}, {"config", config}}).dump();
}

}  // namespace

std::string GoodAck() {
  return R"({"stream":"s","seq":1})";
}

CScriptedNatsServer::CScriptedNatsServer(size_t uMaxPayload, AnswerFunction fnAnswer)
    : m_uMaxPayload(uMaxPayload),
      m_fnAnswer(std::move(fnAnswer)),
      m_iListenFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
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

CScriptedNatsServer::~CScriptedNatsServer() {
  shutdown(m_iListenFd, SHUT_RDWR);
  m_thread.join();
  close(m_iListenFd);
  {
    const std::lock_guard lock(m_mutex);
    for (const int iFd : m_vecFds) {
      shutdown(iFd, SHUT_RDWR);
    }
  }
  for (std::thread& thread : m_lstThreads) {
    thread.join();
  }
}

void CScriptedNatsServer::Listen() {
  for (int iFd = accept(m_iListenFd, nullptr, nullptr); iFd >= 0; iFd = accept(m_iListenFd, nullptr, nullptr)) {
    const std::lock_guard lock(m_mutex);
    m_vecFds.push_back(iFd);
    m_lstThreads.emplace_back([this, iFd] { Serve(iFd); });
  }
}

void CScriptedNatsServer::Serve(int iFd) {
  CReader reader(iFd);
  std::map<std::string, std::string> mapSubscriptions;  // by a subject's beginning, its number
  const nlohmann::json info = {{"server_id", "X"}, {"version", "2.9.0"},           {"headers", true},
                               {"proto", 1},       {"max_payload", m_uMaxPayload}, {"jetstream", true}};
  bool bOpen = Send(iFd, "INFO " + info.dump() + "\r\n");
  for (std::string strLine; bOpen && reader.Line(strLine);) {
    std::istringstream stream(strLine);
    const std::vector<std::string> vecWords{std::istream_iterator<std::string>(stream), {}};
    const std::string& strVerb = vecWords.at(0);
    if (strVerb == "PING") {
      bOpen = Send(iFd, "PONG\r\n");
    } else if (strVerb == "SUB") {
      mapSubscriptions[vecWords.at(1).substr(0, vecWords.at(1).find('*'))] = vecWords.back();
    } else if (strVerb == "PUB" || strVerb == "HPUB") {
      std::string strMessage;
      if (!reader.Piece(std::stoul(vecWords.back()), strMessage)) {
        break;
      }
      const std::string& strReply = vecWords.at(2);
      const auto inbox = std::find_if(mapSubscriptions.begin(), mapSubscriptions.end(),
                                      [&](const auto& one) { return strReply.starts_with(one.first); });
      std::string strAnswer;
      if (strVerb == "PUB") {
        strAnswer = StreamInfo();
      } else {
        const std::string strLineOfRecord = strMessage.substr(std::stoul(vecWords.at(vecWords.size() - 2)));
        strAnswer =
            m_fnAnswer(std::stoull(nlohmann::json::parse(strLineOfRecord)["dataid"].get<std::string>(), nullptr, 16));
      }
      bOpen = !strAnswer.empty() && inbox != mapSubscriptions.end() &&
              Send(iFd, "MSG " + strReply + " " + inbox->second + " " + std::to_string(strAnswer.size()) + "\r\n" +
                            strAnswer + "\r\n");
    }
  }
  const std::lock_guard lock(m_mutex);
  m_vecFds.erase(std::find(m_vecFds.begin(), m_vecFds.end(), iFd));
  close(iFd);
}
