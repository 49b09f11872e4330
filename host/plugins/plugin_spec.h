// Which plug-in to load.
#ifndef QMLOGCACHE_HOST_PLUGINS_PLUGIN_SPEC_H_
#define QMLOGCACHE_HOST_PLUGINS_PLUGIN_SPEC_H_

#include <string>

struct PluginSpec {
  std::string strName;  // for messages
  std::string strPath;  // the library; absolute
  std::string strGuid;  // upper-case text form, given to CreateObject
};

#endif  // QMLOGCACHE_HOST_PLUGINS_PLUGIN_SPEC_H_
