// How the keys of the configuration are described: one row a key, in tables by the part of the host they belong to.
#ifndef QMLOGCACHE_HOST_CONFIG_KEY_RULE_H_
#define QMLOGCACHE_HOST_CONFIG_KEY_RULE_H_

#include <string>
#include <string_view>
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

template <typename TField>
std::string SetNumber(std::string_view svValue, uint64_t u64Least, uint64_t u64Most, TField& uField) {
  uint64_t u64Read = 0;
  std::string strWrong = ReadNumber(svValue, u64Least, u64Most, u64Read);
  uField = static_cast<TField>(u64Read);
  return strWrong;
}

template <typename TField>
std::string SetSize(std::string_view svValue, uint64_t u64Least, uint64_t u64Most, TField& uField) {
  uint64_t u64Read = 0;
  std::string strWrong = ReadSize(svValue, u64Least, u64Most, u64Read);
  uField = static_cast<TField>(u64Read);
  return strWrong;
}

#endif  // QMLOGCACHE_HOST_CONFIG_KEY_RULE_H_
