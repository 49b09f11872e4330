// Decision of the send gate that stands alone.
#ifndef QMLOGCACHE_MANAGER_SEND_GATE_H_
#define QMLOGCACHE_MANAGER_SEND_GATE_H_

// Seconds to wait before the next send in single-send mode after that many failures in a row.
int BackOffSeconds(long lErrorCount);

#endif  // QMLOGCACHE_MANAGER_SEND_GATE_H_
