// Logging library: named channels, one rotating file each.
//
// A channel's file is <directory>/<channel>.log, mode 0600. One call writes one line, whatever the text holds: control
// characters and backslashes are escaped reversibly, so that no text can forge a second line; a single line break at
// the very end of a text is taken as the line's own end. LogPrint and LogPrintStr may be called from any thread, also
// after LogUninit of the same handle (then they do nothing): a handle never dangles.
//
// Lines go through a bounded asynchronous writer. When it cannot keep up, lines are dropped and the next line written
// tells how many. The channel "qmlogcacheerror" drops none: its lines are with the operating system when the call
// returns.
#ifndef QMLOGCACHE_PLATFORM_LOG_H_
#define QMLOGCACHE_PLATFORM_LOG_H_

// Levels. 3, 4 and 6 are on unless QmLogConfigure says otherwise.
enum LogLevel : int {
  kLogTransport = 1,  // per-record transport success
  kLogNormal = 2,     // normal operation
  kLogWarning = 3,    // warnings and errors
  kLogMissing = 4,    // a missing object
  kLogLifecycle = 6,  // lifecycle and statistics
};

extern "C" {
// Opens a channel by name (letters, digits, '-' and '_'). Opening an open channel gives the same handle and must be
// paired with a LogUninit of its own. Null on failure.
void* LogInit(const char* pszChannel);
// printf-style. A null handle or a level that is off costs no formatting.
void LogPrint(void* hLog, int iLevel, const char* pszFormat, ...) __attribute__((format(printf, 3, 4)));
// The text as it stands.
void LogPrintStr(void* hLog, int iLevel, const char* pszText);
// Flushes and closes the channel. Null does nothing.
void LogUninit(void* hLog);
// Where channels opened from now on write, which levels are on (bit n for level n), the size in bytes at which a file
// rotates, and how many files a channel keeps in all. Called by the host before it starts a plug-in. 0 for success;
// non-zero changes nothing (null or empty directory, u64MaxFileSize or dwMaxFiles 0). Without it: <module
// directory>/../log/, levels 3, 4 and 6, 10 MiB, 5 files.
int QmLogConfigure(const char* pszDirectory, unsigned int dwLevels, unsigned long long u64MaxFileSize,
                   unsigned int dwMaxFiles);
// For a host that reads what a component says only in its log, such as its statistics: pfnObserver is given every line
// of that channel and level, as the caller formatted it and before it is escaped, on the caller's thread, whether the
// line is then dropped or not. Lines of a level that is off, or of a channel that is not open, are not given. One
// observer at a time, which takes the place of the one before; a null pfnObserver takes it away, and no call of it runs
// any more when this returns. The observer must be quick, throw nothing and neither log nor call this function.
// 0 for success; non-zero changes nothing (null channel name or memory).
int QmLogObserve(const char* pszChannel, int iLevel,
                 void (*pfnObserver)(const char* pText, unsigned long uLength, void* pUser), void* pUser);
}

#endif  // QMLOGCACHE_PLATFORM_LOG_H_
