#include "tests/support/allocation_faults.h"

#include <dlfcn.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>

#include "platform/api.h"
#include "platform/cpstring.h"
#include "tests/support/allocation_pause.h"

namespace {
thread_local bool t_bFail = false;
thread_local unsigned int t_uUntilFault = 0;         // allocations up to and with the one that fails; 0: none does
thread_local unsigned int t_uStringsUntilFault = 0;  // the same for strings
thread_local std::size_t t_uLarge = SIZE_MAX;
}  // namespace

CAllocationFault::CAllocationFault() {
  t_bFail = true;
}
CAllocationFault::~CAllocationFault() {
  t_bFail = false;
}

CNthAllocationFault::CNthAllocationFault(unsigned int uNth) {
  t_uUntilFault = uNth;
}
CNthAllocationFault::~CNthAllocationFault() {
  t_uUntilFault = 0;
}
bool CNthAllocationFault::HasFailed() const {
  return t_uUntilFault == 0;
}

CNthStringFault::CNthStringFault(unsigned int uNth) {
  t_uStringsUntilFault = uNth;
}
CNthStringFault::~CNthStringFault() {
  t_uStringsUntilFault = 0;
}
bool CNthStringFault::HasFailed() const {
  return t_uStringsUntilFault == 0;
}

CLargeAllocationFault::CLargeAllocationFault(unsigned long ulBytes) {
  t_uLarge = ulBytes;
}
CLargeAllocationFault::~CLargeAllocationFault() {
  t_uLarge = SIZE_MAX;
}

CAddressSpaceLimit::CAddressSpaceLimit(unsigned long long u64HeadroomBytes) : m_u64Before(0) {
  rlimit limit{};
  getrlimit(RLIMIT_AS, &limit);
  m_u64Before = limit.rlim_cur;
  unsigned long long u64Pages = 0;
  std::ifstream("/proc/self/statm") >> u64Pages;
  limit.rlim_cur = u64Pages * static_cast<unsigned long long>(sysconf(_SC_PAGESIZE)) + u64HeadroomBytes;
  setrlimit(RLIMIT_AS, &limit);
}

CAddressSpaceLimit::~CAddressSpaceLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_AS, &limit);
  limit.rlim_cur = m_u64Before;
  setrlimit(RLIMIT_AS, &limit);
}

// Delegates, so that a sanitizer's own operator new still sees what is allocated.
QM_PLATFORM_API void* operator new(std::size_t uSize) {
  static const auto pfnReal = reinterpret_cast<void* (*)(std::size_t)>(dlsym(RTLD_NEXT, "_Znwm"));
  if (!CAllocationPause::IsPaused() && (uSize >= t_uLarge || (t_uUntilFault != 0 && --t_uUntilFault == 0))) {
    throw std::bad_alloc();
  }
  return pfnReal(uSize);
}

QM_PLATFORM_API void* operator new(std::size_t uSize, const std::nothrow_t& /*nothrow*/) noexcept {
  if (t_bFail) {
    return nullptr;
  }
  try {
    return ::operator new(uSize);
  } catch (...) {
    return nullptr;
  }
}

// In place of the platform library's.
inline namespace qmplatform_v1 {
CPString::CPString(std::string_view svText) {
  if (!CAllocationPause::IsPaused() && t_uStringsUntilFault != 0 && --t_uStringsUntilFault == 0) {
    throw std::bad_alloc();
  }
  char* pBytes = nullptr;
  *this = Allocate(svText.size(), &pBytes);
  if (pBytes != nullptr) {
    std::memcpy(pBytes, svText.data(), svText.size());
  }
}
}  // namespace qmplatform_v1

// Read by the sanitizers' run-time libraries at start, if there are any.
extern "C" {
QM_PLATFORM_API const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
QM_PLATFORM_API const char* __tsan_default_options() {
  return "allocator_may_return_null=1";
}
}
