// An SQLite VFS under a name of its own, over the default one, through which nothing is changed: a database, its
// write-ahead log and its journal are opened for reading alone and only when they are regular files, none is made and
// none is deleted. What SQLite itself would do when it merely opens a file (make a log or an index, delete what it takes
// for a leftover) fails here, and the reader then works on a copy.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_READ_ONLY_VFS_H_
#define QMLOGCACHE_TOOLS_QMCACHE_READ_ONLY_VFS_H_

// The VFS's name, registered on first use; null when that failed.
const char* ReadOnlyVfsName();

#endif  // QMLOGCACHE_TOOLS_QMCACHE_READ_ONLY_VFS_H_
