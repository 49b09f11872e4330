#include "host/config/host_config.h"

#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "host/config/config_values.h"
#include "host/config/http_keys.h"
#include "host/config/key_rule.h"
#include "host/config/nats_keys.h"
#include "host/config/path_obstacles.h"
#include "host/link/agent_id.h"
#include "plugin/compctx/guid.h"

namespace {

constexpr uint64_t kKilo = 1U << 10;
constexpr uint64_t kGiga = 1U << 30;
constexpr uint64_t kHourMs = 3600000;
constexpr std::string_view kPluginPrefix = "plugin ";

std::string SetSync(std::string_view svValue, Target& target) {
  size_t uWord = 0;
  std::string strWrong = ReadWord(svValue, {"full", "normal"}, uWord);
  target.config.iStorageSync = uWord == 0 ? 2 : 1;
  target.config.fileDriver.bSync = uWord == 0;
  return strWrong;
}

std::string SetSocket(std::string_view svValue, Target& target) {
  constexpr size_t kLongest = sizeof(sockaddr_un::sun_path) - 1;
  std::string& strPath = target.config.ingress.strSocketPath;
  std::string strWrong = ReadPath(svValue, target.strPrefix, strPath);
  if (strWrong.empty() && strPath.size() > kLongest) {
    strWrong = "the path " + strPath + " is longer than the " + std::to_string(kLongest) + " bytes of a socket's name";
  }
  return strWrong;
}

std::string SetDriver(std::string_view svValue, Target& target) {
  size_t uWord = 0;
  std::string strWrong = ReadWord(svValue, LinkDriverNames(), uWord);
  target.config.linkDriver = static_cast<LinkDriver>(uWord);
  return strWrong;
}

std::string SetAgentId(std::string_view svValue, Target& target) {
  target.config.strAgentId.clear();
  const bool bGood = svValue.empty() || ReadAgentId(svValue, target.config.strAgentId);
  return bGood ? std::string() : "\"" + std::string(svValue) + "\" is not a UUID";
}

std::string SetStatus(std::string_view svValue, Target& target) {
  target.config.status = {};
  return svValue.empty() ? std::string()
                         : ReadLoopbackAddress(svValue, target.config.status.strAddress, target.config.status.uPort);
}

const KeyRule kHostRules[] = {
    {"host", "data_dir", "data",
     [](std::string_view sv, Target& t) { return ReadPath(sv, t.strPrefix, t.config.strDataDir); }},
    {"log", "dir", "log", [](std::string_view sv, Target& t) { return ReadPath(sv, t.strPrefix, t.config.strLogDir); }},
    {"log", "levels", "3,4,6", [](std::string_view sv, Target& t) { return ReadLevels(sv, t.config.uLogLevels); }},
    {"log", "max_file_size", "10M",
     [](std::string_view sv, Target& t) { return SetSize(sv, 4 * kKilo, kGiga, t.config.u64LogMaxFileSize); }},
    // Of a single file the rotation of the log would leave nothing.
    {"log", "max_files", "5",
     [](std::string_view sv, Target& t) { return SetNumber(sv, 2, 1000, t.config.uLogMaxFiles); }},
    {"storage", "sync", "full", SetSync},
    {"router", "completion_threads", "1",
     [](std::string_view sv, Target& t) { return SetNumber(sv, 1, 64, t.config.router.uCompletionThreads); }},
    {"router", "reply_timeout_ms", "30000",
     [](std::string_view sv, Target& t) { return SetNumber(sv, 1, kHourMs, t.config.router.uReplyTimeoutMs); }},
    {"ingress", "socket", "data/qmhost.sock", SetSocket},
    {"ingress", "allowed_users", "",
     [](std::string_view sv, Target& t) { return ReadUsers(sv, t.config.ingress.vecAllowedUsers); }},
    {"ingress", "max_frame", "16M",
     [](std::string_view sv, Target& t) { return SetSize(sv, 4 * kKilo, kGiga, t.config.ingress.uMaxFrame); }},
    {"ingress", "window", "1024",
     [](std::string_view sv, Target& t) { return SetNumber(sv, 1, 1048576, t.config.ingress.uWindow); }},
    {"ingress", "stall_timeout_ms", "30000",
     [](std::string_view sv, Target& t) { return SetNumber(sv, 100, kHourMs, t.config.ingress.uStallTimeoutMs); }},
    {"ingress", "max_connections", "1024",
     [](std::string_view sv, Target& t) { return SetNumber(sv, 1, 65536, t.config.ingress.uMaxConnections); }},
    {"ingress", "threads", "2",
     [](std::string_view sv, Target& t) { return SetNumber(sv, 1, 256, t.config.ingress.uThreads); }},
    {"link", "driver", "file", SetDriver},
    {"link", "path", "data/records.jsonl",
     [](std::string_view sv, Target& t) { return ReadPath(sv, t.strPrefix, t.config.fileDriver.strPath); }},
    {"link", "agent_id", "", SetAgentId},
};

const KeyRule kStatusRules[] = {
    {"status", "listen", "", SetStatus},
};

const KeyRule kPluginRules[] = {
    {"plugin", "path", "lib/libqmlogcache.so",
     [](std::string_view sv, Target& t) { return ReadPath(sv, t.strPrefix, t.plugin.strPath); }},
    {"plugin", "guid", kComponentGuidText,
     [](std::string_view sv, Target& t) { return ReadGuid(sv, t.plugin.strGuid); }},
    {"plugin", "enabled", "yes", [](std::string_view sv, Target& t) { return ReadSwitch(sv, t.bEnabled); }},
};

// Every key, in the order of the table in the header.
const std::vector<KeyRule>& AllRules() {
  static const std::vector<KeyRule> s_vecRules = [] {
    std::vector<KeyRule> vecRules(std::begin(kHostRules), std::end(kHostRules));
    vecRules.insert(vecRules.end(), HttpKeyRules().begin(), HttpKeyRules().end());
    vecRules.insert(vecRules.end(), NatsKeyRules().begin(), NatsKeyRules().end());
    vecRules.insert(vecRules.end(), std::begin(kStatusRules), std::end(kStatusRules));
    vecRules.insert(vecRules.end(), std::begin(kPluginRules), std::end(kPluginRules));
    return vecRules;
  }();
  return s_vecRules;
}

struct PluginSection {
  std::string strSection;
  int iLine = 0;
  int iPathLine = 0;  // where the library is named
  PluginSpec spec;
  bool bEnabled = true;
};

bool IsPluginSection(std::string_view svSection) {
  return svSection.substr(0, kPluginPrefix.size()) == kPluginPrefix && svSection.size() > kPluginPrefix.size();
}

std::string RuleSection(const std::string& strSection) {
  return IsPluginSection(strSection) ? "plugin" : strSection;
}

std::string Suggestion(std::string_view svWord, const std::vector<std::string>& vecKnown) {
  const std::string strNearest = NearestWord(svWord, vecKnown);
  return strNearest.empty() ? std::string() : "; did you mean " + strNearest + "?";
}

class CChecker {
 public:
  CChecker(const std::string& strPrefix, HostConfig& config, std::vector<ConfigProblem>& vecProblems)
      : m_strPrefix(strPrefix), m_Config(config), m_vecProblems(vecProblems) {}

  void Check(const ConfigText& text) {
    SetDefaults();
    for (const ConfigSection& section : text.vecSections) {
      TakeSection(section);
    }
    for (const ConfigEntry& entry : text.vecEntries) {
      TakeEntry(entry);
    }
    const int iLastLine = std::max(text.iLines, 1);
    CheckPaths(iLastLine);
    CheckLink(iLastLine);
    CheckPlugins(iLastLine);
  }

 private:
  void Complain(int iLine, std::string strText) { m_vecProblems.push_back({iLine, std::move(strText)}); }

  void SetDefaults() {
    PluginSpec spec;
    bool bEnabled = true;
    Target target{m_Config, spec, bEnabled, m_strPrefix};
    for (const KeyRule& rule : AllRules()) {
      std::string strWrong = rule.pfnSet(rule.pszDefault, target);
      // Only the length of a path depends on the installation.
      m_vecDefaultProblems.push_back(strWrong.empty() ? strWrong : std::string(rule.pszKey) + ": " + strWrong);
    }
    m_DefaultSpec = spec;
  }

  void TakeSection(const ConfigSection& section) {
    const std::string strRule = RuleSection(section.strName);
    const bool bKnown = std::any_of(AllRules().begin(), AllRules().end(), [&](const KeyRule& rule) {
      return strRule == rule.pszSection && (strRule != "plugin" || IsPluginSection(section.strName));
    });
    if (!bKnown) {
      if (section.strName.substr(0, 6) == "plugin") {
        Complain(section.iLine, "section [" + section.strName + "] does not name a plug-in: write [plugin NAME]");
        return;
      }
      std::vector<std::string> vecKnown;
      for (const KeyRule& rule : AllRules()) {
        vecKnown.emplace_back(rule.pszSection);
      }
      Complain(section.iLine, "unknown section [" + section.strName + "]" + Suggestion(section.strName, vecKnown));
      return;
    }
    if (IsPluginSection(section.strName) && FindPlugin(section.strName) == nullptr) {
      PluginSection plugin{section.strName, section.iLine, section.iLine, m_DefaultSpec, true};
      plugin.spec.strName = section.strName.substr(kPluginPrefix.size());
      m_vecPlugins.push_back(std::move(plugin));
    }
  }

  PluginSection* FindPlugin(const std::string& strSection) {
    const auto it = std::find_if(m_vecPlugins.begin(), m_vecPlugins.end(),
                                 [&](const PluginSection& plugin) { return plugin.strSection == strSection; });
    return it == m_vecPlugins.end() ? nullptr : &*it;
  }

  void TakeEntry(const ConfigEntry& entry) {
    if (entry.strSection.empty()) {
      Complain(entry.iLine, "key " + entry.strKey + " stands before the first section");
      return;
    }
    const std::string strRule = RuleSection(entry.strSection);
    PluginSection* pPlugin = FindPlugin(entry.strSection);
    std::vector<std::string> vecKnown;
    const KeyRule* pRule = nullptr;
    for (const KeyRule& rule : AllRules()) {
      if (strRule == rule.pszSection && (strRule != "plugin" || pPlugin != nullptr)) {
        vecKnown.emplace_back(rule.pszKey);
        pRule = entry.strKey == rule.pszKey ? &rule : pRule;
      }
    }
    if (vecKnown.empty()) {
      return;  // the section itself has been complained of
    }
    if (pRule == nullptr) {
      Complain(entry.iLine,
               "unknown key " + entry.strKey + " in [" + entry.strSection + "]" + Suggestion(entry.strKey, vecKnown));
      return;
    }
    const auto [itFirst, bFirst] = m_mapLines.try_emplace({entry.strSection, entry.strKey}, entry.iLine);
    if (!bFirst) {
      Complain(entry.iLine, "key " + entry.strKey + " of [" + entry.strSection + "] stands already in line " +
                                std::to_string(itFirst->second));
      return;
    }
    m_vecDefaultProblems[static_cast<size_t>(pRule - AllRules().data())].clear();
    PluginSpec unused;
    bool bUnused = true;
    Target target{m_Config, pPlugin != nullptr ? pPlugin->spec : unused,
                  pPlugin != nullptr ? pPlugin->bEnabled : bUnused, m_strPrefix};
    const std::string strWrong = pRule->pfnSet(entry.strValue, target);
    if (!strWrong.empty()) {
      Complain(entry.iLine, entry.strKey + ": " + strWrong);
      m_setBadKeys.insert({entry.strSection, entry.strKey});
    } else if (pPlugin != nullptr && entry.strKey == "path") {
      pPlugin->iPathLine = entry.iLine;
    }
  }

  // What stands at a path already may keep the host from starting.
  void CheckPaths(int iLastLine) {
    CheckPath({"host", "data_dir"}, m_Config.strDataDir, DirectoryObstacle, iLastLine);
    CheckPath({"log", "dir"}, m_Config.strLogDir, DirectoryObstacle, iLastLine);
    CheckPath({"ingress", "socket"}, m_Config.ingress.strSocketPath, SocketObstacle, iLastLine);
  }

  // What the chosen driver needs. A row a driver.
  void CheckLink(int iLastLine) {
    if (m_setBadKeys.count({"link", "driver"}) != 0) {
      return;
    }
    switch (m_Config.linkDriver) {
      case LinkDriver::File:
        CheckPath({"link", "path"}, m_Config.fileDriver.strPath, RecordFileObstacle, iLastLine);
        break;
      case LinkDriver::Http:
        CheckTogether("http", HttpKeyProblems(m_Config.httpDriver), iLastLine);
        break;
      case LinkDriver::Nats:
        CheckTogether("nats", NatsKeyProblems(m_Config.natsDriver), iLastLine);
        break;
    }
  }

  void CheckTogether(const std::string& strSection, const std::vector<std::pair<std::string, std::string>>& vecProblems,
                     int iLastLine) {
    for (const auto& [strKey, strText] : vecProblems) {
      const auto it = m_mapLines.find({strSection, strKey});
      if (m_setBadKeys.count({strSection, strKey}) == 0) {
        std::string strProblem = strKey;
        Complain(it == m_mapLines.end() ? iLastLine : it->second, strProblem.append(": ").append(strText));
      }
    }
  }

  void CheckPath(const std::pair<std::string, std::string>& key, const std::string& strPath,
                 std::string (*pfnObstacle)(const std::string& strPath), int iLastLine) {
    if (m_setBadKeys.count(key) != 0) {
      return;
    }
    const std::string strObstacle = pfnObstacle(strPath);
    if (!strObstacle.empty()) {
      const auto it = m_mapLines.find(key);
      const bool bDefault = it == m_mapLines.end();
      Complain(bDefault ? iLastLine : it->second,
               (bDefault ? "the default of " : "") + key.second + ": " + strObstacle);
    }
  }

  void CheckPlugins(int iLastLine) {
    for (std::string& strWrong : m_vecDefaultProblems) {
      if (!strWrong.empty()) {
        Complain(iLastLine, "the default of " + strWrong);
      }
    }
    std::map<std::string, std::string> mapNames;
    for (const PluginSection& plugin : m_vecPlugins) {
      if (!plugin.bEnabled) {
        continue;
      }
      struct stat info {};
      if (m_setBadKeys.count({plugin.strSection, "path"}) == 0 &&
          (stat(plugin.spec.strPath.c_str(), &info) != 0 || !S_ISREG(info.st_mode))) {
        Complain(plugin.iPathLine, "there is no plug-in library " + plugin.spec.strPath);
      }
      const auto [itOther, bNew] = mapNames.try_emplace(plugin.spec.strGuid, plugin.strSection);
      if (!bNew) {
        Complain(plugin.iLine, "[" + plugin.strSection + "] has the same guid as [" + itOther->second + "]");
      }
      m_Config.vecPlugins.push_back(plugin.spec);
    }
    if (m_Config.vecPlugins.empty()) {
      Complain(iLastLine, "no plug-in is enabled: a section [plugin NAME] is missing");
    }
  }

  const std::string& m_strPrefix;
  HostConfig& m_Config;
  std::vector<ConfigProblem>& m_vecProblems;
  std::vector<std::string> m_vecDefaultProblems;  // one a rule; empty when good or not used
  PluginSpec m_DefaultSpec;
  std::vector<PluginSection> m_vecPlugins;
  std::map<std::pair<std::string, std::string>, int> m_mapLines;
  std::set<std::pair<std::string, std::string>> m_setBadKeys;  // section and key of values that were not understood
};

}  // namespace

std::vector<ConfigProblem> LoadHostConfig(const std::string& strFile, const std::string& strPrefix,
                                          HostConfig& config) {
  config = HostConfig{};
  std::vector<ConfigProblem> vecProblems;
  const ConfigText text = ReadConfigText(strFile, vecProblems);
  // Of a file that could not be read nothing more can be said.
  const bool bRead = std::none_of(vecProblems.begin(), vecProblems.end(),
                                  [](const ConfigProblem& problem) { return problem.iLine == 0; });
  if (bRead) {
    CChecker(strPrefix, config, vecProblems).Check(text);
  }
  std::stable_sort(vecProblems.begin(), vecProblems.end(),
                   [](const ConfigProblem& left, const ConfigProblem& right) { return left.iLine < right.iLine; });
  return vecProblems;
}

const std::vector<std::string>& LinkDriverNames() {
  static const std::vector<std::string> s_vecNames = {"file", "http", "nats"};
  return s_vecNames;
}

std::vector<HostConfigKey> HostConfigKeys() {
  std::vector<HostConfigKey> vecKeys;
  for (const KeyRule& rule : AllRules()) {
    vecKeys.push_back({rule.pszSection, rule.pszKey, rule.pszDefault});
  }
  return vecKeys;
}

std::string FormatProblem(const std::string& strFile, const ConfigProblem& problem) {
  return strFile + (problem.iLine != 0 ? ":" + std::to_string(problem.iLine) : std::string()) + ": " + problem.strText;
}
