#include "host/plugins/plugin.h"

#include <dlfcn.h>

#include <exception>
#include <utility>

namespace {

// Never read by a plug-in, but must not be null.
char g_cInitParam = 0;

// Calls into the library; what it throws becomes a reason.
template <typename TCall>
bool CallPlugin(const char* pszStep, const TCall& fnCall, std::string& strError) {
  try {
    fnCall();
    return true;
  } catch (const std::exception& error) {
    strError = std::string(pszStep) + " threw: " + error.what();
  } catch (...) {
    if (!std::current_exception()) {
      throw;  // no C++ exception: the thread is being cancelled
    }
    strError = std::string(pszStep) + " threw something that is no std::exception";
  }
  return false;
}

// As CallPlugin for a step that answers 0 for success.
template <typename TCall>
bool CallStep(const char* pszStep, const TCall& fnCall, std::string& strError) {
  long lResult = 0;
  if (!CallPlugin(
          pszStep, [&] { lResult = fnCall(); }, strError)) {
    return false;
  }
  if (lResult != 0) {
    strError = std::string(pszStep) + " returned " + std::to_string(lResult);
  }
  return lResult == 0;
}

template <typename TFunction>
bool Find(void* pLibrary, const char* pszSymbol, TFunction& pfnFound, std::string& strError) {
  pfnFound = reinterpret_cast<TFunction>(dlsym(pLibrary, pszSymbol));
  if (pfnFound == nullptr) {
    strError = std::string("exports no function ") + pszSymbol;
  }
  return pfnFound != nullptr;
}

}  // namespace

CPlugin::CPlugin(PluginSpec spec) : m_Spec(std::move(spec)) {}

CPlugin::~CPlugin() {
  Unload();
}

bool CPlugin::FindFunctions(std::string& strError) {
  return Find(m_pLibrary, "InitializePlugin", m_pfnInitialize, strError) &&
         Find(m_pLibrary, "UninitializePlugin", m_pfnUninitialize, strError) &&
         Find(m_pLibrary, "CreateObject", m_pfnCreateObject, strError) &&
         Find(m_pLibrary, "DestroyObject", m_pfnDestroyObject, strError);
}

bool CPlugin::MakeObject(std::string& strError) {
  const auto fnCreate = [this] {
    m_pObject = static_cast<_PluginObjFuncTable*>(m_pfnCreateObject(m_Spec.strGuid.c_str()));
  };
  if (!CallPlugin("CreateObject", fnCreate, strError)) {
    return false;
  }
  if (m_pObject == nullptr) {
    strError = "CreateObject knows no object " + m_Spec.strGuid;
    return false;
  }
  if (m_pObject->Initialize == nullptr || m_pObject->Uninitialize == nullptr || m_pObject->Start == nullptr ||
      m_pObject->Stop == nullptr || m_pObject->SetCtx == nullptr) {
    strError = "the object " + m_Spec.strGuid + " lacks an entry that the host calls";
    return false;
  }
  return true;
}

bool CPlugin::Load(std::string& strError) {
  std::string strReason;
  m_pLibrary = dlopen(m_Spec.strPath.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (m_pLibrary == nullptr) {
    const char* pszReason = dlerror();
    strReason = pszReason != nullptr ? pszReason : "cannot be opened";
  } else if (FindFunctions(strReason)) {
    m_bLibraryInitialized = CallStep("InitializePlugin", m_pfnInitialize, strReason);
    if (m_bLibraryInitialized && MakeObject(strReason)) {
      m_bObjectInitialized = CallStep(
          "Initialize", [this] { return m_pObject->Initialize(&g_cInitParam); }, strReason);
    }
  }
  if (!m_bObjectInitialized) {
    Unload();
    strError = "plug-in " + m_Spec.strName + " (" + m_Spec.strPath + "): " + strReason;
  }
  return m_bObjectInitialized;
}

bool CPlugin::Start(std::shared_ptr<IComponentContext> pContext, std::string& strError) {
  std::string strReason = "is not loaded";
  if (m_bObjectInitialized) {
    m_pContext = std::move(pContext);
    // What SetCtx returns is not settled between hosts and plug-ins.
    const auto fnSetCtx = [this] { static_cast<void>(m_pObject->SetCtx(m_pContext.get())); };
    if (CallPlugin("SetCtx", fnSetCtx, strReason)) {
      m_bStarted = true;
      if (CallStep("Start", m_pObject->Start, strReason)) {
        return true;
      }
    }
  }
  strError = "plug-in " + m_Spec.strName + " (" + m_Spec.strPath + "): " + strReason;
  return false;
}

void CPlugin::Unload() {
  // On the way out every step is taken, whatever the one before answered.
  std::string strIgnored;
  if (m_bStarted) {
    static_cast<void>(CallStep("Stop", m_pObject->Stop, strIgnored));
  }
  if (m_bObjectInitialized) {
    static_cast<void>(CallStep("Uninitialize", m_pObject->Uninitialize, strIgnored));
  }
  if (m_pObject != nullptr) {
    const auto fnDestroy = [this] { m_pfnDestroyObject(m_Spec.strGuid.c_str(), m_pObject); };
    static_cast<void>(CallPlugin("DestroyObject", fnDestroy, strIgnored));
  }
  if (m_bLibraryInitialized) {
    static_cast<void>(CallPlugin("UninitializePlugin", m_pfnUninitialize, strIgnored));
  }
  if (m_pContext) {
    // A plug-in that forgot it must get no call any more once its code is gone.
    static_cast<void>(m_pContext->Uninitialize());
  }
  if (m_pLibrary != nullptr) {
    dlclose(m_pLibrary);
  }
  m_pContext.reset();
  m_pObject = nullptr;
  m_pLibrary = nullptr;
  m_bLibraryInitialized = m_bObjectInitialized = m_bStarted = false;
}
