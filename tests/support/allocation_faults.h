// Lets allocations that may fail without throwing (new (std::nothrow)) fail on request.
#ifndef QMLOGCACHE_TESTS_SUPPORT_ALLOCATION_FAULTS_H_
#define QMLOGCACHE_TESTS_SUPPORT_ALLOCATION_FAULTS_H_

// While it lives, every new (std::nothrow) of the calling thread gives null.
class CAllocationFault {
 public:
  CAllocationFault();
  ~CAllocationFault();
  CAllocationFault(const CAllocationFault&) = delete;
  CAllocationFault& operator=(const CAllocationFault&) = delete;
};

// While it lives, the process cannot have much more address space than it has now: an allocation of uHeadroomBytes or
// more fails. Needs an allocator that returns null rather than ending the process; the sanitizers are told to.
class CAddressSpaceLimit {
 public:
  explicit CAddressSpaceLimit(unsigned long long u64HeadroomBytes);
  ~CAddressSpaceLimit();
  CAddressSpaceLimit(const CAddressSpaceLimit&) = delete;
  CAddressSpaceLimit& operator=(const CAddressSpaceLimit&) = delete;

 private:
  unsigned long long m_u64Before;
};

#endif  // QMLOGCACHE_TESTS_SUPPORT_ALLOCATION_FAULTS_H_
