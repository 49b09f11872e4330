// An SQLite VFS under a name of its own, over the host's default one: the same in everything but the directory sync of
// a write-ahead log.
//
// SQLite syncs a log's directory at the first sync of every handle, since it cannot know whether the log's name is
// durable. With a connection for each operation that is a second flush of the disk for every write. Here the directory is
// synced once, and again whenever the log was missing or empty.
//
// Threads: any. The host's default VFS and SQLite's other process-wide settings stay as they are.
#ifndef QMLOGCACHE_DB_WAL_VFS_H_
#define QMLOGCACHE_DB_WAL_VFS_H_

// The VFS's name for sqlite3_open_v2, registered on first use; null, which is the default VFS, when that failed.
const char* WalVfsName();

#endif  // QMLOGCACHE_DB_WAL_VFS_H_
