// The right to write one record to its cache file: one thread has it at a time. Taken, never waited for.
#ifndef QMLOGCACHE_STORE_WRITE_CLAIM_H_
#define QMLOGCACHE_STORE_WRITE_CLAIM_H_

#include "store/log_exec_data.h"

class CWriteClaim {
 public:
  explicit CWriteClaim(_LogExecData& data) : m_data(data), m_bHeld(!data.marks.Set(_LogExecData::CMarks::kWriting)) {}
  ~CWriteClaim() {
    if (m_bHeld) {
      m_data.marks.Clear(_LogExecData::CMarks::kWriting);
    }
  }
  CWriteClaim(const CWriteClaim&) = delete;
  CWriteClaim& operator=(const CWriteClaim&) = delete;
  bool IsHeld() const { return m_bHeld; }

 private:
  _LogExecData& m_data;
  const bool m_bHeld;
};

#endif  // QMLOGCACHE_STORE_WRITE_CLAIM_H_
