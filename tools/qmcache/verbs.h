// The verbs: each does its work and returns the exit status. They throw Interruption, ReaderGone and std::system_error.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_VERBS_H_
#define QMLOGCACHE_TOOLS_QMCACHE_VERBS_H_

#include "tools/qmcache/options.h"

int RunLs(const Options& options);
int RunShow(const Options& options);
int RunCat(const Options& options);
int RunVerify(const Options& options);
int RunExport(const Options& options);
int RunSalvage(const Options& options);
int RunRejected(const Options& options);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_VERBS_H_
