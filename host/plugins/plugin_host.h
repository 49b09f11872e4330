// All plug-ins of the host, driven together on one lifecycle thread.
//
// A plug-in that cannot be loaded or started keeps no other from running; its reason is told, and it is up to the
// caller what a start with a missing plug-in is worth.
#ifndef QMLOGCACHE_HOST_PLUGINS_PLUGIN_HOST_H_
#define QMLOGCACHE_HOST_PLUGINS_PLUGIN_HOST_H_

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/plugins/lifecycle_thread.h"
#include "host/plugins/plugin.h"
#include "host/router/router.h"

// Not safe for several threads.
class CPluginHost {
 public:
  // The router must outlive the plug-in host.
  explicit CPluginHost(IRouter& router) : m_Router(router) {}
  ~CPluginHost();
  CPluginHost(const CPluginHost&) = delete;
  CPluginHost& operator=(const CPluginHost&) = delete;

  // Loads and initialises the plug-ins in their order. Returns the reasons of those that failed; empty when all did.
  [[nodiscard]] std::vector<std::string> Load(const std::vector<PluginSpec>& vecSpecs);
  // Starts every loaded plug-in in order, each with a context of its own; fnStarted is called on the caller's thread
  // after each that started. Returns the reasons of those that failed.
  [[nodiscard]] std::vector<std::string> Start(const std::function<void(const PluginSpec&)>& fnStarted);
  // Stops and unloads in the opposite order.
  void StopAndUnload();

 private:
  IRouter& m_Router;
  CLifecycleThread m_Thread;
  std::vector<std::unique_ptr<CPlugin>> m_vecPlugins;  // the loaded ones
};

#endif  // QMLOGCACHE_HOST_PLUGINS_PLUGIN_HOST_H_
