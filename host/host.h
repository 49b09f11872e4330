// The host as a whole: brings the parts up in their order, waits for signals, takes them down in the opposite order.
#ifndef QMLOGCACHE_HOST_HOST_H_
#define QMLOGCACHE_HOST_HOST_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/config/host_config.h"
#include "host/data_dir.h"
#include "host/ingress/ingress_server.h"
#include "host/link/server_link.h"
#include "host/plugins/plugin_host.h"
#include "host/router/router.h"
#include "host/signal_thread.h"
#include "host/status/status_service.h"

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;     // the start failed: a plug-in, the link, the socket, a directory, the lock
inline constexpr int kExitBadConfig = 2;  // the command line or the configuration file

class CHost {
 public:
  // strPrefix: the installation, the parent of the directory of this program.
  CHost(HostConfig config, std::string strPrefix);
  ~CHost();
  CHost(const CHost&) = delete;
  CHost& operator=(const CHost&) = delete;

  // Starts, serves until SIGTERM or SIGINT, stops. Returns the exit status of the process. Once.
  int Run();

 private:
  void Serve();  // until SIGTERM or SIGINT
  std::string StatusText() const;
  // Each false with the reason told.
  bool Prepare();  // directories, lock, log
  bool StartParts();
  bool StartStatus(std::optional<uint64_t> optFirstOfRun);
  void Stop();
  void Fail(const std::string& strReason);
  void Fail(const std::vector<std::string>& vecReasons);

  const HostConfig m_Config;
  const std::string m_strPrefix;
  CSignalThread m_Signals;
  CDataDir m_DataDir;
  void* m_hLog = nullptr;
  std::unique_ptr<IRouter> m_pRouter;
  std::unique_ptr<IServerLink> m_pLink;
  std::unique_ptr<IStatusService> m_pStatus;
  std::unique_ptr<CPluginHost> m_pPlugins;
  std::unique_ptr<IIngressServer> m_pIngress;
};

#endif  // QMLOGCACHE_HOST_HOST_H_
