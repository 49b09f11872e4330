// The plug-in object that the host drives: eight entries that forward to the manager, and the log channels' life.
//
// The host calls the entries from one thread at a time. The order is not enforced; manager failures are logged and not
// reported to the host.
#ifndef QMLOGCACHE_PLUGIN_PLUGIN_OBJECT_H_
#define QMLOGCACHE_PLUGIN_PLUGIN_OBJECT_H_

#include "plugin/compctx/plugin_api.h"

// Last lifecycle step completed.
enum PluginStatus : int {
  kPluginLoaded = 0,
  kPluginInitialized = 1,
  kPluginStarted = 2,
  kPluginStopped = 3,
  kPluginUninitialized = 4,
};
extern int g_iPluginStatus;

class CLogCachePluginObj {
 public:
  // The entries, in the object's order.
  static const _PluginObjFuncTable& Entries();

  static int Initialize(void* pInitParam);
  static int Uninitialize();
  static int Start();
  static int Stop();
  static int GetStatus();
  static int GetCtx(void* pData);
  static int SetCtx(void* pData);
  static int Info(void* pData);
};

#endif  // QMLOGCACHE_PLUGIN_PLUGIN_OBJECT_H_
