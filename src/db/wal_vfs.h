// An SQLite VFS under a name of its own, over the host's default one: the same in everything but the directory sync of
// a write-ahead log, and a file that a rollback journal names.
//
// SQLite syncs a log's directory at the first sync of every handle, since it cannot know whether the log's name is
// durable. With a connection for each operation that is a second flush of the disk for every write. Here the directory is
// synced once, and again whenever the log was missing or empty.
//
// A journal of a transaction over several databases names a further file, the super-journal, anywhere in the file
// system. Whoever undoes the transaction opens that file, and deletes it as the last of them. No transaction here is over
// several databases, so such a journal comes from somebody else, and the file that it names is never opened, which is
// before it would be deleted. The transaction is undone and its journal removed; the statement that does it fails with
// SQLITE_CANTOPEN, and the next one works.
//
// Threads: any. The host's default VFS and SQLite's other process-wide settings stay as they are.
#ifndef QMLOGCACHE_DB_WAL_VFS_H_
#define QMLOGCACHE_DB_WAL_VFS_H_

// The VFS's name for sqlite3_open_v2, registered on first use; null, which is the default VFS, when that failed.
const char* WalVfsName();

#endif  // QMLOGCACHE_DB_WAL_VFS_H_
