// SIGHUP, SIGINT and SIGTERM end the program at the next turn of whatever it does, with its temporary files removed.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_INTERRUPTION_H_
#define QMLOGCACHE_TOOLS_QMCACHE_INTERRUPTION_H_

// Thrown on the way out; not an error. Caught by main alone.
struct Interruption {
  int iSignal;
};

// These signals are noticed from now on, and system calls that wait return early; SIGPIPE is ignored.
void NoticeSignals();
// The signal that has come, 0 when none has.
int SignalThatCame();
// Throws Interruption when one has come.
void EndIfInterrupted();

#endif  // QMLOGCACHE_TOOLS_QMCACHE_INTERRUPTION_H_
