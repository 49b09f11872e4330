// Calls into a component. What a component throws ends here; a cancelled thread unwinds through.
#ifndef QMLOGCACHE_HOST_ROUTER_COMPONENT_CALL_H_
#define QMLOGCACHE_HOST_ROUTER_COMPONENT_CALL_H_

#include <exception>

#include "platform/log.h"

// False when the call threw; pszWhat names it in the log.
template <typename TCall>
bool CallComponent(void* hLog, const char* pszWhat, const TCall& fnCall) {
  try {
    fnCall();
    return true;
  } catch (const std::exception& error) {
    LogPrint(hLog, kLogWarning, "*qmhost %s threw: %s", pszWhat, error.what());
  } catch (...) {
    if (!std::current_exception()) {
      throw;  // no C++ exception: the thread is being cancelled
    }
    LogPrint(hLog, kLogWarning, "*qmhost %s threw something that is no std::exception", pszWhat);
  }
  return false;
}

#endif  // QMLOGCACHE_HOST_ROUTER_COMPONENT_CALL_H_
