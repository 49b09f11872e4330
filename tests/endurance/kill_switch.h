// Ends the process with SIGKILL at a named point. The executable defines sqlite3_exec, sqlite3_wal_checkpoint_v2, rename,
// remove, unlink, the gz functions, the syncs, pwrite and ftruncate itself and exports them: they do what the real ones
// do, and are counted. Only the syncs do nothing: what a killed process has written stays written without them.
//
// Nothing is counted before ArmKillSwitch. Every operation may be called from any thread.
#ifndef QMLOGCACHE_TESTS_ENDURANCE_KILL_SWITCH_H_
#define QMLOGCACHE_TESTS_ENDURANCE_KILL_SWITCH_H_

#include <string>
#include <string_view>

enum class Moment : int {
  Before = 0,
  Halfway = 1,  // of a pwrite: half its bytes are written
  After = 2,
};

// A call, and what it works on: the beginning of a statement or of a log line, or the end of a path.
struct KillPoint {
  Moment moment = Moment::Before;
  // The function's name, or "row" (a row that a statement returns), "log" (a line), "reply" (to a producer).
  std::string strCall = {};
  std::string strDetail = {};  // empty: anything
  // What the statement begins with inside which it must happen, "checkpoint" for one; empty: anywhere.
  std::string strWithin = {};
  unsigned int uOccurrence = 1;
};

// Once, before the threads that are to be killed.
void ArmKillSwitch(const KillPoint& point);

// One call that is watched, from its beginning to its end.
class CWatchedCall {
 public:
  CWatchedCall(const char* pszCall, std::string_view svDetail);
  // On an open file, which is known by its path.
  CWatchedCall(const char* pszCall, int iFile);
  ~CWatchedCall();
  CWatchedCall(const CWatchedCall&) = delete;
  CWatchedCall& operator=(const CWatchedCall&) = delete;
  // Whether the process is to end when half of this call is done, which EndProcess then does.
  bool EndsHalfway() const { return m_bHalfway; }
  [[noreturn]] static void EndProcess();

 private:
  void Begin(const char* pszCall, std::string_view svDetail);

  bool m_bAfter = false;
  bool m_bHalfway = false;
};

#endif  // QMLOGCACHE_TESTS_ENDURANCE_KILL_SWITCH_H_
