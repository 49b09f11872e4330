#include "host/host.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <array>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <optional>
#include <utility>

#include "host/install_tree.h"
#include "host/link_drivers.h"
#include "host/service/service_manager.h"
#include "host/service/watchdog.h"
#include "platform/file_info.h"
#include "platform/log.h"
#include "platform/storage_sync.h"

namespace {

constexpr mode_t kPrivateMode = 0750;
// Producers of other users must be able to reach the socket.
constexpr mode_t kSocketDirMode = 0755;

std::string DirectoryOf(const std::string& strPath) {
  return std::filesystem::path(strPath).parent_path().string();
}

// Each connection takes a descriptor, and the usual soft limit is kept low for programs that use select, which this one
// does not.
void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    // Without it the ingress serves fewer connections, and says so.
    static_cast<void>(setrlimit(RLIMIT_NOFILE, &limit));
  }
}

}  // namespace

CHost::CHost(HostConfig config, std::string strPrefix)
    : m_Config(std::move(config)), m_strPrefix(std::move(strPrefix)), m_DataDir(m_Config.strDataDir) {}

CHost::~CHost() {
  Stop();
}

void CHost::Fail(const std::string& strReason) {
  std::fprintf(stderr, "qmhost: %s\n", strReason.c_str());
  service_manager::TellStatus("Failed: " + strReason);
  LogPrint(m_hLog, kLogWarning, "*qmhost %s", strReason.c_str());
}

void CHost::Fail(const std::vector<std::string>& vecReasons) {
  for (const std::string& strReason : vecReasons) {
    Fail(strReason);
  }
}

int CHost::Run() {
  if (!Prepare() || !StartParts()) {
    Stop();
    return kExitFailed;
  }
  LogPrint(m_hLog, kLogLifecycle, "qmhost ready");
  std::puts("qmhost ready");
  std::fflush(stdout);
  service_manager::TellReady(StatusText());
  Serve();
  service_manager::TellStopping("Saving what is not delivered");
  Stop();
  return kExitOk;
}

void CHost::Serve() {
  std::optional<CWatchdog> watchdog;
  const std::chrono::microseconds watchdogTime = service_manager::WatchdogTime();
  if (watchdogTime.count() > 0) {
    const auto fnFeed = [this] {
      service_manager::Feed();
      service_manager::TellStatus(StatusText());
    };
    const auto fnStuck = [this](const std::string& strLoops) {
      LogPrint(m_hLog, kLogWarning, "*qmhost does not feed the watchdog, these loops stand still: %s",
               strLoops.c_str());
    };
    // After a round that goes wrong the next one feeds in time, and the log has room to name the loop.
    constexpr int kRounds = 4;
    watchdog.emplace(watchdogTime / kRounds, fnFeed, fnStuck);
  }
  while (m_Signals.Wait() == HostEvent::Reload) {
    service_manager::TellReloading();
    LogPrint(m_hLog, kLogLifecycle, "qmhost reopens the link");
    m_pLink->Reopen();
    service_manager::TellReady(StatusText());
  }
}

std::string CHost::StatusText() const {
  const ServerLinkCounts counts = m_pLink->GetCounts();
  return "Taking records on " + m_Config.ingress.strSocketPath + "; the link is " + (counts.bUp ? "up" : "down") +
         ", " + std::to_string(counts.u64Delivered) + " delivered, " + std::to_string(counts.u64Held) +
         " with the link";
}

bool CHost::Prepare() {
  umask(0077);
  RaiseDescriptorLimit();
  std::string strError;
  // The lock comes before the log, which two hosts on one configuration would otherwise share.
  if (!MakeDirectories(m_Config.strDataDir, kPrivateMode, strError) || !m_DataDir.Lock(strError) ||
      !MakeDirectories(m_Config.strLogDir, kPrivateMode, strError) ||
      !MakeDirectories(DirectoryOf(m_Config.ingress.strSocketPath), kSocketDirMode, strError)) {
    Fail(strError);
    return false;
  }
  if (QmLogConfigure(m_Config.strLogDir.c_str(), m_Config.uLogLevels, m_Config.u64LogMaxFileSize,
                     m_Config.uLogMaxFiles) != 0) {
    Fail("the log cannot be written to " + m_Config.strLogDir);
    return false;
  }
  m_hLog = LogInit("qmhost");
  if (m_hLog == nullptr) {
    Fail("the log cannot be written to " + m_Config.strLogDir);
    return false;
  }
  if (QmSetStorageSync(m_Config.iStorageSync) != 0) {
    Fail("the storage setting was refused");
    return false;
  }
  // A prefix that cannot be written is no reason to stay away: all that is needed may be configured elsewhere.
  const std::string strMissing = MakeInstallTree(m_strPrefix);
  if (!strMissing.empty()) {
    LogPrint(m_hLog, kLogWarning, "*qmhost the installation is incomplete: %s", strMissing.c_str());
  }
  return true;
}

bool CHost::StartParts() {
  std::string strError;
  m_pRouter = CreateRouter(m_Config.router);
  std::unique_ptr<ILinkDriver> pDriver = MakeLinkDriver(m_Config, strError);
  if (!pDriver) {
    Fail(strError);
    return false;
  }
  m_pLink = CreateServerLink(*m_pRouter, std::move(pDriver));
  if (!m_pLink->Start(strError)) {
    m_pLink.reset();
    Fail(strError);
    return false;
  }

  const bool bLaterThanLast = m_DataDir.AwaitNewSecond();
  std::optional<uint64_t> optFirstOfRun;
  if (bLaterThanLast) {
    const auto uStartSecond = static_cast<uint32_t>(time(nullptr));
    m_pLink->SetRunStart(uStartSecond);
    optFirstOfRun = static_cast<uint64_t>(uStartSecond) << 32;
  } else {
    LogPrint(m_hLog, kLogWarning, "*qmhost the clock is behind the last start");
  }
  if (!m_Config.status.strAddress.empty() && !StartStatus(optFirstOfRun)) {
    return false;
  }
  // Every plug-in gets its chance, so that one start tells of all that is wrong.
  m_pPlugins = std::make_unique<CPluginHost>(*m_pRouter);
  std::vector<std::string> vecReasons = m_pPlugins->Load(m_Config.vecPlugins);
  // After the plug-ins took their start time and before one of them takes a record.
  if (!m_DataDir.NoteStart(strError)) {
    Fail(strError);
    return false;
  }
  for (std::string& strReason : m_pPlugins->Start([this](const PluginSpec& spec) {
         LogPrint(m_hLog, kLogLifecycle, "qmhost started plug-in %s", spec.strName.c_str());
         m_pLink->AnnounceIfUp();
       })) {
    vecReasons.push_back(std::move(strReason));
  }
  if (!vecReasons.empty()) {
    Fail(vecReasons);
    return false;
  }

  m_pIngress = CreateIngressServer(m_Config.ingress, *m_pRouter);
  if (!m_pIngress->Start(strError)) {
    m_pIngress.reset();
    Fail(strError);
    return false;
  }
  return true;
}

bool CHost::StartStatus(std::optional<uint64_t> optFirstOfRun) {
  StatusSources sources;
  sources.strVersion = QMHOST_VERSION;
  std::array<char, 4096> arrDirectory{};
  if (QmGetModuleFilePath(arrDirectory.data(), static_cast<unsigned int>(arrDirectory.size())) == 0) {
    sources.strProgramDirectory = arrDirectory.data();
  }
  sources.fnIntake = [this] { return m_pRouter->GetIntakeCounts(); };
  sources.fnLink = [this] { return m_pLink->GetCounts(); };
  sources.fnDownReason = [this] { return m_pLink->GetDownReason(); };
  sources.strLink = m_pLink->Describe();
  sources.optFirstOfRun = optFirstOfRun;
  std::string strError;
  m_pStatus = CreateStatusService(m_Config.status, std::move(sources));
  if (!m_pStatus->Start(strError)) {
    m_pStatus.reset();
    Fail(strError);
    return false;
  }
  return true;
}

void CHost::Stop() {
  if (m_pIngress) {
    m_pIngress->Stop();
  }
  if (m_pRouter) {
    m_pRouter->StopIntake();
  }
  if (m_pPlugins) {
    m_pPlugins->StopAndUnload();
    m_pPlugins.reset();
  }
  m_pIngress.reset();
  m_pStatus.reset();  // served until here: a stop may take its time
  if (m_pLink) {
    m_pLink->Stop();
    const ServerLinkCounts counts = m_pLink->GetCounts();
    char szLine[256];
    std::snprintf(szLine, sizeof(szLine),
                  "qmhost stopped: received %" PRIu64 ", delivered %" PRIu64 ", rejected %" PRIu64
                  ", to be retried %" PRIu64 ", held %" PRIu64,
                  counts.u64Received, counts.u64Delivered, counts.u64Rejected, counts.u64Retried, counts.u64HeldAtStop);
    LogPrint(m_hLog, kLogLifecycle, "%s", szLine);
    std::puts(szLine);
    std::fflush(stdout);
    m_pLink.reset();
  }
  m_pRouter.reset();
  LogUninit(m_hLog);
  m_hLog = nullptr;
}
