// How the keys of the configuration are described: one row a key, in tables by the part of the host they belong to.
#ifndef QMLOGCACHE_HOST_CONFIG_KEY_RULE_H_
#define QMLOGCACHE_HOST_CONFIG_KEY_RULE_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/config/config_values.h"
#include "host/config/host_config.h"

// What the keys are set in.
struct Target {
  HostConfig& config;
  PluginSpec& plugin;  // that of the key's section
  bool& bEnabled;
  const std::string& strPrefix;
};

// One key: its value goes into the target, or the answer says what is wrong.
struct KeyRule {
  const char* pszSection;  // "plugin" stands for every plug-in's section
  const char* pszKey;
  const char* pszDefault;
  std::string (*pfnSet)(std::string_view svValue, Target& target);
};

// What is wrong with keys that are good one by one: the key to blame, and the text.
using KeyProblems = std::vector<std::pair<std::string, std::string>>;

template <typename TRead, typename TField>
std::string SetBounded(TRead read, std::string_view svValue, uint64_t u64Least, uint64_t u64Most, TField& uField) {
  uint64_t u64Read = 0;
  std::string strWrong = read(svValue, u64Least, u64Most, u64Read);
  uField = static_cast<TField>(u64Read);
  return strWrong;
}

template <typename TField>
std::string SetNumber(std::string_view svValue, uint64_t u64Least, uint64_t u64Most, TField& uField) {
  return SetBounded(ReadNumber, svValue, u64Least, u64Most, uField);
}

template <typename TField>
std::string SetSize(std::string_view svValue, uint64_t u64Least, uint64_t u64Most, TField& uField) {
  return SetBounded(ReadSize, svValue, u64Least, u64Most, uField);
}

// For rows of a part of the configuration, as &HostConfig::httpDriver is one: the field of that part.
template <auto Part, auto Field, uint64_t kLeast, uint64_t kMost>
std::string SetNumberOf(std::string_view svValue, Target& target) {
  return SetNumber(svValue, kLeast, kMost, target.config.*Part.*Field);
}

// Of a file that may be named or not; whether it is there is found out when it is needed.
template <auto Part, auto Field>
std::string SetFileOf(std::string_view svValue, Target& target) {
  std::string& strFile = target.config.*Part.*Field;
  strFile.clear();
  return svValue.empty() ? std::string() : ReadPath(svValue, target.strPrefix, strFile);
}

// How the keys for TLS of a link's driver must go together. pszNoTls: what to say of a server without it.
template <typename TOptions>
void AddTlsProblems(const TOptions& options, bool bTls, const char* pszNoTls, KeyProblems& problems) {
  if (!options.strClientKey.empty() && options.strClientCert.empty()) {
    problems.emplace_back("client_key", "there is no client_cert that it belongs to");
  }
  // Whoever names an authority or a certificate expects a connection that nobody else can read.
  if (!bTls && !options.strCaFile.empty()) {
    problems.emplace_back("ca_file", pszNoTls);
  }
  if (!bTls && !options.strClientCert.empty()) {
    problems.emplace_back("client_cert", pszNoTls);
  }
}

#endif  // QMLOGCACHE_HOST_CONFIG_KEY_RULE_H_
