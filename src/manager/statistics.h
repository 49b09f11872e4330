// The eighteen counters of the statistics line, in its order. Each only ever grows, by one.
#ifndef QMLOGCACHE_MANAGER_STATISTICS_H_
#define QMLOGCACHE_MANAGER_STATISTICS_H_

#include "platform/relaxed_atomic.h"

struct LogCacheStatistics {
  using Counter = CRelaxedAtomic<unsigned long long>;

  Counter CountAll;     // records passed to AddExecData
  Counter CountPlugin;  // of these, by kind
  Counter CountServer;
  Counter CountCloudTag;
  Counter CountLow;  // by priority
  Counter CountNormal;
  Counter CountHigh;
  Counter CountReal;
  Counter CountGuid;       // without product, or with a product but no combo
  Counter CountCombo;      // with both
  Counter CountSuccess;    // delivered
  Counter CountAddFail;    // not stored
  Counter CountSendFail;   // refused by the router
  Counter CountRecvFail;   // rejected by the destination
  Counter CountTimeout;    // timed out, first send
  Counter CountQmcloud;    // turned back by the cloud side, first send
  Counter CountReTimeout;  // the same two for a record that had been queued again before
  Counter CountReQmcloud;
};

#endif  // QMLOGCACHE_MANAGER_STATISTICS_H_
