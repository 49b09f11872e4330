#include "host/plugins/plugin_host.h"

#include <utility>

CPluginHost::~CPluginHost() {
  StopAndUnload();
}

std::vector<std::string> CPluginHost::Load(const std::vector<PluginSpec>& vecSpecs) {
  std::vector<std::string> vecReasons;
  for (const PluginSpec& spec : vecSpecs) {
    auto pPlugin = std::make_unique<CPlugin>(spec);
    std::string strReason;
    bool bLoaded = false;
    m_Thread.Run([&] { bLoaded = pPlugin->Load(strReason); });
    if (bLoaded) {
      m_vecPlugins.push_back(std::move(pPlugin));
    } else {
      vecReasons.push_back(std::move(strReason));
    }
  }
  return vecReasons;
}

std::vector<std::string> CPluginHost::Start(const std::function<void(const PluginSpec&)>& fnStarted) {
  std::vector<std::string> vecReasons;
  for (const auto& pPlugin : m_vecPlugins) {
    std::string strReason;
    bool bStarted = false;
    m_Thread.Run([&] { bStarted = pPlugin->Start(m_Router.CreateContext(), strReason); });
    if (bStarted) {
      fnStarted(pPlugin->Spec());
    } else {
      vecReasons.push_back(std::move(strReason));
    }
  }
  return vecReasons;
}

void CPluginHost::StopAndUnload() {
  while (!m_vecPlugins.empty()) {
    m_Thread.Run([this] { m_vecPlugins.back()->Unload(); });
    m_vecPlugins.pop_back();
  }
}
