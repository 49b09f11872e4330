#include "plugin_host.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

#include "replaced_clock.h"

namespace {

[[noreturn]] void GiveUp(const char* pszWhat) {
  std::fprintf(stderr, "%s: %s\n", pszWhat, dlerror());
  std::abort();
}

template <typename T>
T Find(void* hLibrary, const char* pszName) {
  void* pSymbol = dlsym(hLibrary, pszName);
  if (pSymbol == nullptr) {
    GiveUp(pszName);
  }
  return reinterpret_cast<T>(pSymbol);
}

LoadedPlugin Load() {
  LoadedPlugin plugin;
  plugin.hLibrary = dlopen(QMLOGCACHE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  if (plugin.hLibrary == nullptr) {
    GiveUp(QMLOGCACHE_LIBRARY);
  }
  plugin.pfnInitializePlugin = Find<PluginInitializeFunc>(plugin.hLibrary, "InitializePlugin");
  plugin.pfnUninitializePlugin = Find<PluginUninitializeFunc>(plugin.hLibrary, "UninitializePlugin");
  plugin.pfnCreateObject = Find<PluginCreateObjectFunc>(plugin.hLibrary, "CreateObject");
  plugin.pfnDestroyObject = Find<PluginDestroyObjectFunc>(plugin.hLibrary, "DestroyObject");
  // A look-up in the library's own scope finds the platform's function, not the executable's.
  CReplacedClock::Get().SetRealWaitEvent(Find<CReplacedClock::WaitEventFunc>(plugin.hLibrary, "QmWaitEventTimeout"));
  void* pObject = plugin.pfnCreateObject(kComponentGuidText);
  plugin.iStatusWhenLoaded = static_cast<_PluginObjFuncTable*>(pObject)->GetStatus();
  plugin.pfnDestroyObject(kComponentGuidText, pObject);
  return plugin;
}

}  // namespace

const LoadedPlugin& GetLoadedPlugin() {
  static const LoadedPlugin plugin = Load();
  return plugin;
}

CPluginHost::CPluginHost()
    : m_pObject(static_cast<_PluginObjFuncTable*>(GetLoadedPlugin().pfnCreateObject(kComponentGuidText))) {}

CPluginHost::~CPluginHost() {
  EndLife();
  GetLoadedPlugin().pfnDestroyObject(kComponentGuidText, m_pObject);
}

int CPluginHost::Initialize() {
  m_bInitialized = true;
  return m_pObject->Initialize(this);
}

int CPluginHost::SetCtx(IComponentContext* pContext) {
  return m_pObject->SetCtx(pContext);
}

int CPluginHost::Start() {
  m_bStarted = true;
  return m_pObject->Start();
}

int CPluginHost::Stop() {
  m_bStarted = false;
  return m_pObject->Stop();
}

int CPluginHost::Uninitialize() {
  m_bInitialized = false;
  return m_pObject->Uninitialize();
}

void CPluginHost::BeginLife(IComponentContext* pContext) {
  Initialize();
  SetCtx(pContext);
  Start();
}

void CPluginHost::EndLife() {
  if (m_bStarted) {
    Stop();
  }
  if (m_bInitialized) {
    Uninitialize();
  }
}
