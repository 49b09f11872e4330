// The four functions by which a host finds the component.
#include <cstring>
#include <new>

#include "plugin/compctx/guid.h"
#include "plugin/plugin_object.h"

#define QM_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))

namespace {
// Compares the terminating zero too, so that a longer text is a mismatch.
bool IsComponentGuid(const char* pszGuid) {
  return pszGuid != nullptr && strncmp(pszGuid, kComponentGuidText, sizeof(kComponentGuidText)) == 0;
}
}  // namespace

QM_PLUGIN_EXPORT long InitializePlugin() {
  return 0;
}

QM_PLUGIN_EXPORT void UninitializePlugin() {}

// A new plug-in object, to be given back to DestroyObject; null for another component's GUID.
QM_PLUGIN_EXPORT void* CreateObject(const char* pszGuid) {
  if (!IsComponentGuid(pszGuid)) {
    return nullptr;
  }
  return new (std::nothrow) _PluginObjFuncTable(CLogCachePluginObj::Entries());
}

// Frees the object and nothing else: neither Stop nor Uninitialize.
QM_PLUGIN_EXPORT void DestroyObject(const char* pszGuid, void* pObj) {
  if (IsComponentGuid(pszGuid)) {
    delete static_cast<_PluginObjFuncTable*>(pObj);
  }
}
