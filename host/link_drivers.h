// The drivers of the server link that this host knows, by the configuration's choice.
#ifndef QMLOGCACHE_HOST_LINK_DRIVERS_H_
#define QMLOGCACHE_HOST_LINK_DRIVERS_H_

#include <memory>
#include <string>

#include "host/config/host_config.h"
#include "host/link/link_driver.h"

// Makes what the driver needs on disk (directories, the agent's id), and the driver. Null with a reason. The data
// directory must be there and this host's.
std::unique_ptr<ILinkDriver> MakeLinkDriver(const HostConfig& config, std::string& strError);

#endif  // QMLOGCACHE_HOST_LINK_DRIVERS_H_
