#include "host/link_drivers.h"

#include <filesystem>

#include "host/data_dir.h"
#include "host/link/agent_id.h"

namespace {

constexpr mode_t kPrivateMode = 0750;

// The configured id, or the one in the data directory.
bool FindAgentId(const HostConfig& config, std::string& strId, std::string& strError) {
  strId = config.strAgentId;
  return !strId.empty() || LoadAgentId(config.strDataDir + "/agent_id", strId, strError);
}

std::unique_ptr<ILinkDriver> MakeFile(const HostConfig& config, std::string& strError) {
  const std::string strDirectory = std::filesystem::path(config.fileDriver.strPath).parent_path().string();
  return MakeDirectories(strDirectory, kPrivateMode, strError) ? CreateFileDriver(config.fileDriver) : nullptr;
}

std::unique_ptr<ILinkDriver> MakeHttp(const HostConfig& config, std::string& strError) {
  HttpDriverOptions options = config.httpDriver;
  return FindAgentId(config, options.strAgentId, strError) ? CreateHttpDriver(options) : nullptr;
}

std::unique_ptr<ILinkDriver> MakeNats(const HostConfig& config, std::string& strError) {
  NatsDriverOptions options = config.natsDriver;
  return FindAgentId(config, options.strAgentId, strError) ? CreateNatsDriver(options) : nullptr;
}

struct DriverRow {
  LinkDriver driver;
  std::unique_ptr<ILinkDriver> (*pfnMake)(const HostConfig& config, std::string& strError);
};

const DriverRow kDrivers[] = {
    {LinkDriver::File, MakeFile},
    {LinkDriver::Http, MakeHttp},
    {LinkDriver::Nats, MakeNats},
};

}  // namespace

std::unique_ptr<ILinkDriver> MakeLinkDriver(const HostConfig& config, std::string& strError) {
  for (const DriverRow& row : kDrivers) {
    if (row.driver == config.linkDriver) {
      return row.pfnMake(config, strError);
    }
  }
  strError = "there is no such link driver";
  return nullptr;
}
