// The exit statuses of qmcache, as its help and docs/cache-tool.md name them.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_EXIT_CODES_H_
#define QMLOGCACHE_TOOLS_QMCACHE_EXIT_CODES_H_

inline constexpr int kExitWell = 0;
inline constexpr int kExitDamage = 1;   // something is damaged or lost; what can be read was read
inline constexpr int kExitUsage = 2;    // wrong usage
inline constexpr int kExitNothing = 3;  // nothing matched
inline constexpr int kExitFailed = 4;   // something could not be read or written, or was refused
// Interrupted by a signal: 128 and its number. The reader of the output has gone: as if SIGPIPE had ended the program.
inline constexpr int kExitSignalBase = 128;

#endif  // QMLOGCACHE_TOOLS_QMCACHE_EXIT_CODES_H_
