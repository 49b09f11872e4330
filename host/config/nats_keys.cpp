#include "host/config/nats_keys.h"

#include <algorithm>

#include "host/link/nats/nats_names.h"
#include "host/link/nats/nats_servers.h"

namespace {

constexpr auto kPart = &HostConfig::natsDriver;
constexpr uint64_t kMostMs = 600000;
constexpr uint64_t kHourMs = 3600000;

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

}  // namespace

const std::vector<KeyRule>& NatsKeyRules() {
  static const std::vector<KeyRule> s_vecRules = {
      {"nats", "servers", "", SetServers},
      {"nats", "stream", "qmlogcache", SetStream},
      {"nats", "subject", "qmlogcache", SetSubject},
      {"nats", "ca_file", "", SetFileOf<kPart, &NatsDriverOptions::strCaFile>},
      {"nats", "client_cert", "", SetFileOf<kPart, &NatsDriverOptions::strClientCert>},
      {"nats", "client_key", "", SetFileOf<kPart, &NatsDriverOptions::strClientKey>},
      {"nats", "credentials_file", "", SetFileOf<kPart, &NatsDriverOptions::strCredentialsFile>},
      {"nats", "token_file", "", SetFileOf<kPart, &NatsDriverOptions::strTokenFile>},
      {"nats", "user", "", SetUser},
      {"nats", "password_file", "", SetFileOf<kPart, &NatsDriverOptions::strPasswordFile>},
      {"nats", "timeout_ms", "10000", SetNumberOf<kPart, &NatsDriverOptions::uTimeoutMs, 100, kMostMs>},
      {"nats", "connect_timeout_ms", "10000", SetNumberOf<kPart, &NatsDriverOptions::uConnectTimeoutMs, 100, kMostMs>},
      {"nats", "retry_max_ms", "60000", SetNumberOf<kPart, &NatsDriverOptions::uLongestBackOffMs, 100, kHourMs>},
      {"nats", "pending", "256", SetNumberOf<kPart, &NatsDriverOptions::uPending, 1, 65536>},
  };
  return s_vecRules;
}

KeyProblems NatsKeyProblems(const NatsDriverOptions& options) {
  KeyProblems problems;
  NatsServers servers;
  if (options.strServers.empty()) {
    problems.emplace_back("servers", "the driver nats needs the url of a server");
    return problems;
  }
  if (!ReadNatsServers(options.strServers, servers).empty()) {
    return problems;
  }
  AddTlsProblems(options, servers.bTls, "the servers are not tls://", problems);
  if (options.strUser.empty() != options.strPasswordFile.empty()) {
    problems.emplace_back(options.strUser.empty() ? "password_file" : "user", "user and password_file belong together");
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
      problems.emplace_back(pszKey, std::string("there is a ") + pszFirst + " already, and a server asks for one");
    } else if (!servers.bTls && !servers.bLoopback) {
      problems.emplace_back(pszKey, "the servers are not tls://: it would be sent for everybody to read");
    }
    pszFirst = pszFirst == nullptr ? pszKey : pszFirst;
  }
  return problems;
}
