// The server link: the component with the destination GUID. It takes records from the cache component, hands them to a
// driver and answers each with one result message.
//
// A driver that is down is never a refused send, since the sender would drop the record. When the driver goes down, at
// most kAnsweredPerOutage of the records that are held, or that arrive while it is down, are answered with the time-out
// result: enough for the sender's single-send mode and for its flush to disk. All others are held; they are delivered
// first when the driver is up again, and then the connect broadcast goes out.
//
// Locks: one lock of its own, never held while the router or the driver is called.
#ifndef QMLOGCACHE_HOST_LINK_SERVER_LINK_H_
#define QMLOGCACHE_HOST_LINK_SERVER_LINK_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "host/link/link_driver.h"
#include "host/protocol/record_priority.h"
#include "host/router/router.h"

inline constexpr unsigned int kAnsweredPerOutage = 20;

// Counts since the link was made; the first four only ever grow.
struct ServerLinkCounts {
  uint64_t u64Received = 0;    // records taken from components
  uint64_t u64Delivered = 0;   // answered 0
  uint64_t u64Rejected = 0;    // answered with a result that drops the record
  uint64_t u64Retried = 0;     // answered with a result that queues it again
  uint64_t u64Held = 0;        // not answered yet, at this moment; 0 once the link has stopped
  uint64_t u64HeldAtStop = 0;  // not answered, and given up, when the link last stopped
  bool bUp = false;
  std::chrono::steady_clock::time_point stateSince{};  // when bUp last changed, or the link was started
  PriorityCounts aDelivered{};                         // u64Delivered by priority
  PriorityCounts aRejected{};                          // u64Rejected by priority
  PriorityCounts aSettledOfRun{};  // delivered or rejected, of records that came in since SetRunStart
};

class IServerLink {
 public:
  virtual ~IServerLink() = default;
  // Registers with the router under the destination GUID and starts the driver. False with a reason.
  virtual bool Start(std::string& strError) = 0;
  // Ends the registration, then the driver.
  virtual void Stop() = 0;
  // A plug-in has been started: tells it that the link is up, if it is.
  virtual void AnnounceIfUp() = 0;
  virtual void Reopen() = 0;
  virtual ServerLinkCounts GetCounts() const = 0;
  // Before the first record comes: data ids from this start second on are of this run, earlier ones come from the cache
  // files of earlier runs. Until then no record is of this run.
  virtual void SetRunStart(uint32_t uStartSecond) = 0;
  // Why the link is down, in the driver's words; empty while it is up, or nothing has been said.
  virtual std::string GetDownReason() const = 0;
  // The driver's description of where records go.
  virtual std::string Describe() const = 0;
};

// The router must outlive the link.
std::unique_ptr<IServerLink> CreateServerLink(IRouter& router, std::unique_ptr<ILinkDriver> pDriver);

struct FileDriverOptions {
  std::string strPath;
  bool bSync = true;  // answer only after a grouped fdatasync
};
std::unique_ptr<ILinkDriver> CreateFileDriver(const FileDriverOptions& options);

#endif  // QMLOGCACHE_HOST_LINK_SERVER_LINK_H_
