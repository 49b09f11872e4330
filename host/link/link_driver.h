// What carries records out of the host. The server link hands records to one driver and turns its answers into results.
#ifndef QMLOGCACHE_HOST_LINK_LINK_DRIVER_H_
#define QMLOGCACHE_HOST_LINK_LINK_DRIVER_H_

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/link/tagged_text.h"
#include "plugin/compctx/guid.h"

// One record on its way to the destination. Owned by the server link until it is settled.
struct LinkRecord {
  GUID sender;            // the component that sent it and gets the result
  std::string strText;    // the tagged text as received
  TaggedText tags;        // its fields; views into strText
  int64_t i64ReceivedUs;  // wall clock at reception, microseconds since the epoch
};

// Implemented by the server link; called by the driver on any thread, never while the driver holds a lock of its own.
class ILinkEvents {
 public:
  virtual ~ILinkEvents() = default;
  // One outcome for a record handed over: 0 delivered, else a result code. Exactly once a record.
  virtual void OnOutcome(const std::shared_ptr<LinkRecord>& pRecord, uint32_t uResult) = 0;
  // The outcome 0 for the first uCount of a row. The link takes them with less locking than one by one.
  virtual void OnDelivered(const std::vector<std::shared_ptr<LinkRecord>>& vecRecords, size_t uCount) {
    for (size_t i = 0; i < uCount; ++i) {
      OnOutcome(vecRecords[i], 0);
    }
  }
  // The driver could not deliver these; it forgets them, and they stay with the link. A driver that goes down says so
  // first: what is given back while it is up is delivered to it again at once.
  virtual void OnGivenBack(std::vector<std::shared_ptr<LinkRecord>> vecRecords) = 0;
  // The destination became reachable or unreachable. strReason is for the log. No Deliver runs or begins after OnDown
  // has returned, until OnUp.
  virtual void OnUp() = 0;
  virtual void OnDown(const std::string& strReason) = 0;
};

class ILinkDriver {
 public:
  virtual ~ILinkDriver() = default;
  // Begins to connect; tells the state through OnUp and OnDown, from threads of its own. False with a reason when the
  // configuration can never work.
  virtual bool Start(ILinkEvents* pEvents, std::string& strError) = 0;
  // Returns when no call into ILinkEvents runs or comes any more. Records not settled by then are forgotten.
  virtual void Stop() = 0;
  // Takes a record; never blocks for long. Called only between OnUp and OnDown, records in the order of delivery.
  virtual void Deliver(std::shared_ptr<LinkRecord> pRecord) = 0;
  // Asked for by SIGHUP: reopen files, read credentials again.
  virtual void Reopen() = 0;
  // For the log and the status: "file /var/log/records.jsonl".
  virtual std::string Describe() const = 0;
};

#endif  // QMLOGCACHE_HOST_LINK_LINK_DRIVER_H_
