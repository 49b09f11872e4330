// What a plug-in library exports and what its object looks like. A host finds the four functions by name.
#ifndef QMLOGCACHE_PLUGIN_COMPCTX_PLUGIN_API_H_
#define QMLOGCACHE_PLUGIN_COMPCTX_PLUGIN_API_H_

// The plug-in object: eight entries, called by position, none of them with an object pointer. The host calls them from
// one thread at a time, in the order Initialize, SetCtx, Start, Stop, Uninitialize.
struct _PluginObjFuncTable {
  int (*Initialize)(void* pInitParam);  // 0; -1 for a null argument
  int (*Uninitialize)();
  int (*Start)();
  int (*Stop)();
  int (*GetStatus)();  // 0 loaded, 1 initialised, 2 started, 3 stopped, 4 uninitialised
  int (*GetCtx)(void* pData);
  int (*SetCtx)(void* pData);  // pData: an IComponentContext*
  int (*Info)(void* pData);
};

using PluginInitializeFunc = long (*)();
using PluginUninitializeFunc = void (*)();
using PluginCreateObjectFunc = void* (*)(const char* pszGuid);
using PluginDestroyObjectFunc = void (*)(const char* pszGuid, void* pObj);

#endif  // QMLOGCACHE_PLUGIN_COMPCTX_PLUGIN_API_H_
