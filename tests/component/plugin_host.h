// The host's side of the plug-in interface: loads the library and drives the plug-in object.
#ifndef QMLOGCACHE_TESTS_COMPONENT_PLUGIN_HOST_H_
#define QMLOGCACHE_TESTS_COMPONENT_PLUGIN_HOST_H_

#include "plugin/compctx/component_context.h"
#include "plugin/compctx/plugin_api.h"

// The library, loaded once and never unloaded.
struct LoadedPlugin {
  void* hLibrary = nullptr;
  PluginInitializeFunc pfnInitializePlugin = nullptr;
  PluginUninitializeFunc pfnUninitializePlugin = nullptr;
  PluginCreateObjectFunc pfnCreateObject = nullptr;
  PluginDestroyObjectFunc pfnDestroyObject = nullptr;
  int iStatusWhenLoaded = -1;  // GetStatus before any other entry was called
};
// Ends the process with a message when the library does not load.
const LoadedPlugin& GetLoadedPlugin();

// One plug-in object. All calls from one thread.
class CPluginHost {
 public:
  CPluginHost();
  // Ends the life that is under way and destroys the object.
  ~CPluginHost();
  CPluginHost(const CPluginHost&) = delete;
  CPluginHost& operator=(const CPluginHost&) = delete;

  const _PluginObjFuncTable& Object() const { return *m_pObject; }

  int Initialize();
  int SetCtx(IComponentContext* pContext);
  int Start();
  int Stop();
  int Uninitialize();
  int GetStatus() const { return m_pObject->GetStatus(); }

  // Initialize, SetCtx and Start.
  void BeginLife(IComponentContext* pContext);
  // Stop and Uninitialize, as far as they are due.
  void EndLife();

 private:
  _PluginObjFuncTable* m_pObject;
  bool m_bInitialized = false;
  bool m_bStarted = false;
};

#endif  // QMLOGCACHE_TESTS_COMPONENT_PLUGIN_HOST_H_
