// The groups of results. Case names end in the sync setting, _full or _normal. Durability is that of the setting.
#ifndef QMLOGCACHE_BENCH_STORAGE_GROUPS_H_
#define QMLOGCACHE_BENCH_STORAGE_GROUPS_H_

#include "bench/support/bench_options.h"

// storage_insert, storage_insert_delete: single records; those of the second group are inserted and deleted again, one
// after the other.
//   component  the cache file's own write path
//   whole      the loaded component with one sender: reception to reply; for the deletes also dispatch, and a
//              destination that acknowledges every record from a thread of its own
//   bare       SQLite with the same settings and statements, every hundredth delete's VACUUM included
//   bare_without_vacuum (storage_insert_delete)
//   sqlite_default  SQLite as it comes (DELETE, FULL); the name ends in no setting. A power cut may cost it the newest
//                   record, since it does not sync the removal of its journal.
// Metrics: rate in records/s; file_syncs and directory_syncs in syncs/record.
void RunInserts(const BenchOptions& options);
void RunInsertsAndDeletes(const BenchOptions& options);

// storage_senders: the loaded component, sync full, link down. Cases senders_1, senders_2, senders_4: each sender has a
// thread and a file of its own. Metric: rate of all together.
void RunSenders(const BenchOptions& options);

// storage_save: a store with 100,000 pending records of one sender saves them, as at a stop. storage_load: a store
// loads them, as at a start. Cases component and bare; those of the load name no setting. Metric: rate in records/s.
void RunSave(const BenchOptions& options);
void RunLoad(const BenchOptions& options);

// storage_drain_N: a file of N rows is emptied record by record by its cache file object, sync full. Cases component,
// bare, bare_without_vacuum; of the largest file one round of component alone. Metrics: duration in s, rate in
// records/s, and, with compactions, vacuum_share: the part of the duration that they take.
void RunDrain(const BenchOptions& options);

#endif  // QMLOGCACHE_BENCH_STORAGE_GROUPS_H_
