// The status as a whole: looks at the parts of the host every two seconds, keeps what it saw, and serves it.
//
// Nothing of it is on the road of a record: the parts count by themselves, and are only asked here.
#ifndef QMLOGCACHE_HOST_STATUS_STATUS_SERVICE_H_
#define QMLOGCACHE_HOST_STATUS_STATUS_SERVICE_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "host/link/server_link.h"
#include "host/router/intake_counters.h"
#include "host/status/status_options.h"

// What the status looks at; everything must outlive the service.
struct StatusSources {
  std::string strVersion;
  std::string strProgramDirectory;  // of the running executable, where the component finds its files from
  std::function<IntakeCounts()> fnIntake;
  std::function<ServerLinkCounts()> fnLink;
  std::function<std::string()> fnDownReason;
  std::string strLink;  // where records go
  // The least data id of this run. Nothing when its records cannot be told from earlier ones.
  std::optional<uint64_t> optFirstOfRun;
};

class IStatusService {
 public:
  virtual ~IStatusService() = default;  // stops
  // To be called before the component is started: what the cache files hold by then is of earlier runs. A port
  // that is taken is waited for (status_server.h). False with a reason.
  virtual bool Start(std::string& strError) = 0;
};

std::unique_ptr<IStatusService> CreateStatusService(const StatusOptions& options, StatusSources sources);

#endif  // QMLOGCACHE_HOST_STATUS_STATUS_SERVICE_H_
