#include "bench/instructions/counted_path.h"

#include <valgrind/callgrind.h>

namespace {
std::string g_strOnly;
}  // namespace

void CCountedPath::CountOnly(const std::string& strName) {
  g_strOnly = strName;
}

bool CCountedPath::IsCounted() const {
  return g_strOnly.empty() || g_strOnly == m_strName;
}

CCountedPath::CSection::CSection(const CCountedPath& path) : m_bCounted(path.IsCounted()) {
  if (m_bCounted) {
    CALLGRIND_TOGGLE_COLLECT;
  }
}

CCountedPath::CSection::~CSection() {
  if (m_bCounted) {
    CALLGRIND_TOGGLE_COLLECT;
  }
}

void CCountedPath::Report(unsigned int uRecords) const {
  if (IsCounted()) {
    const std::string strTrigger = m_strName + " " + std::to_string(uRecords);
    CALLGRIND_DUMP_STATS_AT(strTrigger.c_str());
  }
}
