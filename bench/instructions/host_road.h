// The road of a producer's message through the host, on the caller's thread: a connection of the ingress on a socket
// pair, the router, and whatever component has registered with the context.
#ifndef QMLOGCACHE_BENCH_INSTRUCTIONS_HOST_ROAD_H_
#define QMLOGCACHE_BENCH_INSTRUCTIONS_HOST_ROAD_H_

#include <memory>

#include "host/router/router.h"

class CHostRoad {
 public:
  // Registers with the router as the component does at its start.
  CHostRoad();
  ~CHostRoad();
  CHostRoad(const CHostRoad&) = delete;
  CHostRoad& operator=(const CHostRoad&) = delete;

  IComponentContext& Context();
  // Puts uRecords message frames into the socket; they and their answers must fit into its buffers.
  void WriteFrames(unsigned int uRecords);
  // Lets the host take what is in the socket, hand it to the component and write the answers.
  void TakeFrames();
  // Reads the answers. Throws std::runtime_error unless they are uRecords, all "accepted".
  void ReadAnswers(unsigned int uRecords);

 private:
  struct Parts;
  const std::unique_ptr<Parts> m_pParts;
};

#endif  // QMLOGCACHE_BENCH_INSTRUCTIONS_HOST_ROAD_H_
