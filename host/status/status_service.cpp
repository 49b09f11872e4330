#include "host/status/status_service.h"

#include <algorithm>
#include <utility>

#include "host/protocol/host_status.h"
#include "host/service/loop.h"
#include "host/status/cache_directory.h"
#include "host/status/cache_rows.h"
#include "host/status/component_statistics.h"
#include "host/status/earlier_rows.h"
#include "host/status/history.h"
#include "host/status/metrics.h"
#include "host/status/status_json.h"
#include "host/status/status_page.h"
#include "host/status/status_server.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// What the counting of rows may take of each tick, and of the start.
constexpr milliseconds kCountBudget{50};
constexpr milliseconds kEarlierBudget{200};  // each file is found empty once
constexpr milliseconds kFirstCountBudget{500};
constexpr seconds kRateSpan{60};
constexpr size_t kRememberedFiles = 8;
// Of this many times its length a look at the directory takes one.
constexpr int kScanShare = 20;

// Everything but Start runs on the server's thread.
class CStatusService final : public IStatusService {
 public:
  CStatusService(const StatusOptions& options, StatusSources sources)
      : m_sources(std::move(sources)),
        m_pServer(CreateStatusServer(options, {[this](std::string_view svTarget) { return Document(svTarget); },
                                               [this] { Look(); }, kFineStep})) {}
  ~CStatusService() override { m_pServer->Stop(); }

  bool Start(std::string& strError) override {
    m_cacheSettings = ReadCacheSettings(m_sources.strProgramDirectory);
    m_earlier.Count(m_cacheSettings.strDirectory, kFirstCountBudget);
    return m_pServer->Start(strError);
  }

 private:
  static StatusTime Now() { return std::chrono::steady_clock::now(); }

  void LookAtFiles() {
    // A disk that hangs is no reason to end the host.
    const CForeignCode foreign;
    const StatusTime begin = Now();
    if (begin >= m_nextScan) {
      m_cache = ScanCacheDirectory(m_cacheSettings.strDirectory);
      // A directory of very many files is looked at more rarely.
      m_nextScan = begin + kScanShare * (Now() - begin);
    }
    m_rows.Fill(m_cacheSettings.strDirectory, m_cache, Now(), kCountBudget);
    if (m_sources.optFirstOfRun) {
      m_earlier.Look(m_cacheSettings.strDirectory, *m_sources.optFirstOfRun, kEarlierBudget);
    }
  }

  void Look() {
    LookAtFiles();
    const StatusSnapshot snapshot = Snapshot();
    HistorySample sample;
    sample.when = Now();
    sample.aAccepted = snapshot.intake.aAccepted;
    sample.u64Delivered = snapshot.link.u64Delivered;
    if (snapshot.optHeld) {
      sample.optHeld = snapshot.optHeld->aOfRun;
    }
    sample.bLinkUp = snapshot.link.bUp;
    if (m_cache.bReadable) {
      sample.optCacheBytes = m_cache.u64Bytes;
    }
    for (size_t i = 0; i < std::min(m_cache.vecFiles.size(), kRememberedFiles); ++i) {
      sample.vecFiles.emplace_back(m_cache.vecFiles[i].strSender, m_cache.vecFiles[i].u64Bytes);
    }
    m_history.Add(std::move(sample));
  }

  // Counters as they are now, sizes as they were at the last look.
  StatusSnapshot Snapshot() {
    StatusSnapshot snapshot;
    const StatusTime now = Now();
    snapshot.strVersion = m_sources.strVersion;
    snapshot.time = std::chrono::system_clock::now();
    snapshot.started = m_started;
    // What is settled is read first: a record that is settled in between then counts as held, and not as less than none.
    snapshot.link = m_sources.fnLink();
    snapshot.intake = m_sources.fnIntake();
    snapshot.linkStateAge = std::max(std::chrono::duration_cast<seconds>(now - snapshot.link.stateSince), seconds(0));
    if (std::exchange(m_linkStateSince, snapshot.link.stateSince) != snapshot.link.stateSince) {
      m_linkChanged = snapshot.time -
                      std::chrono::duration_cast<std::chrono::system_clock::duration>(now - snapshot.link.stateSince);
    }
    snapshot.linkChanged = m_linkChanged;
    snapshot.strLink = m_sources.strLink;
    snapshot.strDownReason = m_sources.fnDownReason();
    snapshot.cacheSettings = m_cacheSettings;
    snapshot.cache = m_cache;
    snapshot.optComponent = m_component.Latest();
    snapshot.optRates = m_history.Rates(kRateSpan);
    if (m_sources.optFirstOfRun) {
      HeldInput input{snapshot.intake.aAccepted, snapshot.link, m_earlier.AtStart(), m_cacheSettings.bKeepsAll};
      input.bHasDropped = snapshot.optComponent && snapshot.optComponent->u64SendFailures != 0;
      const auto& vecRefused = snapshot.intake.vecRefused;
      input.bHasNotAnswered = std::any_of(vecRefused.begin(), vecRefused.end(),
                                          [](const auto& refusal) { return refusal.first == kHostNoReply; });
      snapshot.optHeld = CountHeldRecords(input, m_history, now);
    }
    return snapshot;
  }

  std::optional<StatusDocument> Document(std::string_view svTarget) {
    constexpr const char* kJson = "application/json";
    if (svTarget == "/metrics") {
      return StatusDocument{"text/plain; version=0.0.4; charset=utf-8", MetricsText(Snapshot())};
    }
    if (svTarget == "/api/status") {
      return StatusDocument{kJson, StatusJson(Snapshot())};
    }
    if (svTarget == "/api/history") {
      return StatusDocument{
          kJson, HistoryJson(m_history.Fine(), Now(), std::chrono::system_clock::now(), kFineStep, kFineSpan)};
    }
    if (svTarget == "/api/history?span=day") {
      return StatusDocument{
          kJson, HistoryJson(m_history.Coarse(), Now(), std::chrono::system_clock::now(), kCoarseStep, kCoarseSpan)};
    }
    return PageDocument(svTarget);
  }

  const StatusSources m_sources;
  const std::chrono::system_clock::time_point m_started = std::chrono::system_clock::now();
  CComponentStatistics m_component;
  CacheSettings m_cacheSettings;
  CacheContents m_cache;
  StatusTime m_nextScan{};
  CCacheRows m_rows;
  CEarlierRows m_earlier;
  CHistory m_history;
  StatusTime m_linkStateSince{};  // as of m_linkChanged
  std::chrono::system_clock::time_point m_linkChanged{};
  const std::unique_ptr<IStatusServer> m_pServer;  // last: its thread uses all of the above
};

}  // namespace

std::unique_ptr<IStatusService> CreateStatusService(const StatusOptions& options, StatusSources sources) {
  return std::make_unique<CStatusService>(options, std::move(sources));
}
