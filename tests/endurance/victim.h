// A life of the component in a process of its own, which is killed at a named point. It runs in an installation that
// the test has made, and tells through a pipe what its producers and its destination were told, so that nothing of it is
// lost with the process.
#ifndef QMLOGCACHE_TESTS_ENDURANCE_VICTIM_H_
#define QMLOGCACHE_TESTS_ENDURANCE_VICTIM_H_

#include <ctime>
#include <string>
#include <vector>

#include "kill_switch.h"

// What the life is to do: offer records, deliver what it holds, stop. Every fifth record is the other producer's.
struct VictimOrders {
  time_t tStart = 0;  // the second at which its clock stands
  unsigned int uFirstRecord = 1;
  unsigned int uRecords = 0;
  size_t uFiller = 0;  // bytes of each record beside its key
  // Deliveries after which it stops; 0: the agent is never connected.
  unsigned int uDeliveries = 0;
  KillPoint point = {};
};

struct VictimTale {
  bool bKilled = false;   // by SIGKILL
  bool bStopped = false;  // it came to its end
  std::vector<std::string> vecOffered;
  std::vector<std::string> vecAccepted;
  std::vector<std::string> vecRefused;
  std::vector<std::string> vecDelivered;  // each as often as the destination had it
  unsigned int uUnheard = 0;              // of those, whose result found the component deaf already
};

// Runs a life in that installation to its end. Throws std::runtime_error when no process can be made.
VictimTale RunVictim(const std::string& strRoot, const VictimOrders& orders);

// The process's side: lives that life when the arguments are those of a victim, and does not come back. To be called
// first in main.
void LiveAsVictim(int iArguments, char** ppArguments);

#endif  // QMLOGCACHE_TESTS_ENDURANCE_VICTIM_H_
