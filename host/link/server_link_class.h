// The server link's class. Its life, reception and queries are in server_link.cpp, what the driver says and the pump in
// server_link_events.cpp.
#ifndef QMLOGCACHE_HOST_LINK_SERVER_LINK_CLASS_H_
#define QMLOGCACHE_HOST_LINK_SERVER_LINK_CLASS_H_

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "host/link/result_queue.h"
#include "host/link/server_link.h"

enum class RecordState { Held, WithDriver, Answered };

// What the link keeps about a record beside what the driver sees. Every record a driver hands back is one of these.
struct TrackedRecord : LinkRecord {
  uint64_t u64Sequence = 0;  // order of arrival
  RecordState state = RecordState::Held;
};
using TrackedPtr = std::shared_ptr<TrackedRecord>;

// Records taken out of the link to be answered once its lock is free. At most one outage's budget.
struct AnswerList {
  std::array<TrackedPtr, kAnsweredPerOutage> aRecords;
  size_t uCount = 0;
};

// Deliveries to the driver are made by one thread at a time, the pump: whoever brings a record or the news that the
// driver is up becomes it unless somebody is, and stays it until nothing is held. So records go out in order without a
// lock held.
class CServerLink final : public IServerLink, private IMRReceiveComplete, private ILinkEvents, private IRequestHandler {
 public:
  CServerLink(IRouter& router, std::unique_ptr<ILinkDriver> pDriver)
      : m_router(router),
        m_pDriver(std::move(pDriver)),
        m_resultQueue([this](const LinkResult& result) { return PostResult(result); }) {}
  ~CServerLink() override;

  bool Start(std::string& strError) override;
  void Stop() override;
  void AnnounceIfUp() override;
  void Reopen() override { m_pDriver->Reopen(); }
  ServerLinkCounts GetCounts() const override;
  void SetRunStart(uint32_t uStartSecond) override;
  std::string GetDownReason() const override;
  std::string Describe() const override { return m_pDriver->Describe(); }

 private:
  enum class Phase { Stopped, Running, Stopping };

  void ReceiveCallback(const GUID& stComponentID, long i64MsgType, const unsigned char* pData,
                       unsigned int uiDataLength, void* pReplyHandle, void* pContext) override;
  void OnOutcome(const std::shared_ptr<LinkRecord>& pRecord, uint32_t uResult) override;
  void OnDelivered(const std::vector<std::shared_ptr<LinkRecord>>& vecRecords, size_t uCount) override;
  void OnGivenBack(std::vector<std::shared_ptr<LinkRecord>> vecRecords) override;
  void OnUp() override;
  void OnDown(const std::string& strReason) override;
  uint32_t HandleRequest(uint32_t uCode, std::string_view svRequest, std::string& strReply) override;

  bool RegisterWithRouter(std::string& strError);
  uint32_t Reply(uint32_t uStatus, std::string_view svText, void* pReplyHandle);
  void Take(const TrackedPtr& pRecord);
  bool HoldLocked(const TrackedPtr& pRecord);
  bool IsRecurringLocked(const std::string& strReason) const;
  void LogUp(std::unique_lock<std::mutex>& lock);
  void CountAnswerLocked(TrackedRecord& record, uint32_t uResult);
  void SpendAnswersLocked(AnswerList& answers);
  void Pump(std::unique_lock<std::mutex>& lock, TrackedPtr pFirst);
  void DeliverOne(std::unique_lock<std::mutex>& lock, TrackedPtr pRecord);
  void SendTimeouts(const AnswerList& answers);
  void SendResult(const LinkRecord& record, uint32_t uResult);
  uint32_t PostResult(const LinkResult& result);
  void Announce();

  IRouter& m_router;
  const std::unique_ptr<ILinkDriver> m_pDriver;
  std::shared_ptr<IHostContext> m_pContext;  // set before the first callback can come
  void* m_hLog = nullptr;                    // likewise
  bool m_bDriverStarted = false;             // of Start and Stop alone
  std::atomic<bool> m_bResultRefused = false;
  CResultQueue m_resultQueue;  // results that the router had no memory for

  mutable std::mutex m_mutex;           // guards all below
  std::condition_variable m_delivered;  // a delivery that OnDown waits for has returned
  Phase m_phase = Phase::Stopped;
  ServerLinkCounts m_counts;
  std::map<uint64_t, TrackedPtr> m_mapHeld;  // by sequence: records neither answered nor with the driver
  uint64_t m_u64LastSequence = 0;
  unsigned int m_uAnswersLeft = 0;  // of this outage
  bool m_bDownLogged = false;       // of this outage
  // An outage that comes back for the same reason before any record is delivered is logged as one.
  size_t m_uDownReason = 0;           // a hash of the last one's
  uint64_t m_u64DeliveredAtDown = 0;  // when it began
  bool m_bRecurring = false;          // it has come back at least once, and its end is not logged before a delivery
  bool m_bUpLogDue = false;           // the driver is up, and this has not been logged
  std::chrono::steady_clock::time_point m_downSince{};
  std::string m_strDownReason;            // empty while up
  uint64_t m_u64FirstOfRun = UINT64_MAX;  // the least data id of this run
  bool m_bAnnounceDue = false;            // the broadcast waits for the records up to m_u64AnnounceAfter
  uint64_t m_u64AnnounceAfter = 0;
  bool m_bPumping = false;
  bool m_bDelivering = false;
  std::thread::id m_idDelivering;
};

#endif  // QMLOGCACHE_HOST_LINK_SERVER_LINK_CLASS_H_
