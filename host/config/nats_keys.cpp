#include "host/config/nats_keys.h"

#include <algorithm>

#include "host/link/nats/nats_names.h"
#include "host/link/nats/nats_servers.h"

namespace {

constexpr uint64_t kMostMs = 600000;

std::string SetServers(std::string_view svValue, Target& target) {
  target.config.natsDriver.strServers = svValue;
  NatsServers servers;
  return svValue.empty() ? std::string() : ReadNatsServers(svValue, servers);
}

std::string SetStream(std::string_view svValue, Target& target) {
  target.config.natsDriver.strStream = svValue;
  return CheckStreamName(svValue);
}

std::string SetSubject(std::string_view svValue, Target& target) {
  target.config.natsDriver.strSubject = svValue;
  return CheckSubjectPrefix(svValue);
}

// libnats puts it between quotes as it is.
std::string SetUser(std::string_view svValue, Target& target) {
  target.config.natsDriver.strUser = svValue;
  const bool bGood = svValue.size() <= 256 && std::all_of(svValue.begin(), svValue.end(), [](char c) {
                       return c > ' ' && c < 0x7f && c != '"' && c != '\\';
                     });
  return bGood ? std::string() : "at most 256 visible characters, without quotation marks and backslashes";
}

// A file that may be named or not; whether it is there is found out when it is needed.
template <std::string NatsDriverOptions::*pstrFile>
std::string SetFile(std::string_view svValue, Target& target) {
  std::string& strFile = target.config.natsDriver.*pstrFile;
  strFile.clear();
  return svValue.empty() ? std::string() : ReadPath(svValue, target.strPrefix, strFile);
}

}  // namespace

const std::vector<KeyRule>& NatsKeyRules() {
  static const std::vector<KeyRule> s_vecRules = {
      {"nats", "servers", "", SetServers},
      {"nats", "stream", "qmlogcache", SetStream},
      {"nats", "subject", "qmlogcache", SetSubject},
      {"nats", "ca_file", "", SetFile<&NatsDriverOptions::strCaFile>},
      {"nats", "client_cert", "", SetFile<&NatsDriverOptions::strClientCert>},
      {"nats", "client_key", "", SetFile<&NatsDriverOptions::strClientKey>},
      {"nats", "credentials_file", "", SetFile<&NatsDriverOptions::strCredentialsFile>},
      {"nats", "token_file", "", SetFile<&NatsDriverOptions::strTokenFile>},
      {"nats", "user", "", SetUser},
      {"nats", "password_file", "", SetFile<&NatsDriverOptions::strPasswordFile>},
      {"nats", "timeout_ms", "10000",
       [](std::string_view sv, Target& t) { return SetNumber(sv, 100, kMostMs, t.config.natsDriver.uTimeoutMs); }},
      {"nats", "connect_timeout_ms", "10000",
       [](std::string_view sv, Target& t) {
         return SetNumber(sv, 100, kMostMs, t.config.natsDriver.uConnectTimeoutMs);
       }},
      {"nats", "retry_max_ms", "60000",
       [](std::string_view sv, Target& t) {
         return SetNumber(sv, 100, 3600000, t.config.natsDriver.uLongestBackOffMs);
       }},
      {"nats", "pending", "256",
       [](std::string_view sv, Target& t) { return SetNumber(sv, 1, 65536, t.config.natsDriver.uPending); }},
  };
  return s_vecRules;
}

std::vector<std::pair<std::string, std::string>> NatsKeyProblems(const NatsDriverOptions& options) {
  std::vector<std::pair<std::string, std::string>> vecProblems;
  NatsServers servers;
  if (options.strServers.empty()) {
    vecProblems.emplace_back("servers", "the driver nats needs the url of a server");
    return vecProblems;
  }
  if (!ReadNatsServers(options.strServers, servers).empty()) {
    return vecProblems;
  }
  if (!options.strClientKey.empty() && options.strClientCert.empty()) {
    vecProblems.emplace_back("client_key", "there is no client_cert that it belongs to");
  }
  if (options.strUser.empty() != options.strPasswordFile.empty()) {
    vecProblems.emplace_back(options.strUser.empty() ? "password_file" : "user",
                             "user and password_file belong together");
  }
  const std::pair<const char*, const std::string&> aSecrets[] = {{"credentials_file", options.strCredentialsFile},
                                                                 {"token_file", options.strTokenFile},
                                                                 {"password_file", options.strPasswordFile}};
  const char* pszFirst = nullptr;
  for (const auto& [pszKey, strFile] : aSecrets) {
    if (strFile.empty()) {
      continue;
    }
    if (pszFirst != nullptr) {
      vecProblems.emplace_back(pszKey, std::string("there is a ") + pszFirst + " already, and a server asks for one");
    } else if (!servers.bTls && !servers.bLoopback) {
      vecProblems.emplace_back(pszKey, "the servers are not tls://: it would be sent for everybody to read");
    }
    pszFirst = pszFirst == nullptr ? pszKey : pszFirst;
  }
  // Whoever names an authority or a certificate expects a connection that nobody else can read.
  const std::pair<const char*, const std::string&> aTls[] = {{"ca_file", options.strCaFile},
                                                             {"client_cert", options.strClientCert}};
  for (const auto& [pszKey, strFile] : aTls) {
    if (!strFile.empty() && !servers.bTls) {
      vecProblems.emplace_back(pszKey, "the servers are not tls://");
    }
  }
  return vecProblems;
}
