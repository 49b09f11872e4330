// One plug-in: its library, its object, and the steps between them in their order.
//
// Not safe for several threads: the plug-in host calls it on the lifecycle thread alone.
#ifndef QMLOGCACHE_HOST_PLUGINS_PLUGIN_H_
#define QMLOGCACHE_HOST_PLUGINS_PLUGIN_H_

#include <memory>
#include <string>

#include "host/plugins/plugin_spec.h"
#include "host/router/router.h"
#include "plugin/compctx/plugin_api.h"

class CPlugin {
 public:
  explicit CPlugin(PluginSpec spec);
  // Undoes what has been done.
  ~CPlugin();
  CPlugin(const CPlugin&) = delete;
  CPlugin& operator=(const CPlugin&) = delete;

  // Opens the library, finds its functions, makes the object and initialises it. False with a reason that names the
  // path and the step; everything done is undone then.
  [[nodiscard]] bool Load(std::string& strError);
  // Gives the context and starts. False with a reason; Unload is due either way.
  [[nodiscard]] bool Start(std::shared_ptr<IComponentContext> pContext, std::string& strError);
  // Stop (when Start was called), Uninitialize, DestroyObject, UninitializePlugin, close. Does nothing when not loaded.
  void Unload();

  const PluginSpec& Spec() const { return m_Spec; }

 private:
  bool FindFunctions(std::string& strError);
  bool MakeObject(std::string& strError);

  const PluginSpec m_Spec;
  void* m_pLibrary = nullptr;
  PluginInitializeFunc m_pfnInitialize = nullptr;
  PluginUninitializeFunc m_pfnUninitialize = nullptr;
  PluginCreateObjectFunc m_pfnCreateObject = nullptr;
  PluginDestroyObjectFunc m_pfnDestroyObject = nullptr;
  _PluginObjFuncTable* m_pObject = nullptr;
  bool m_bLibraryInitialized = false;
  bool m_bObjectInitialized = false;
  bool m_bStarted = false;
  std::shared_ptr<IComponentContext> m_pContext;  // given up after the library is closed
};

#endif  // QMLOGCACHE_HOST_PLUGINS_PLUGIN_H_
