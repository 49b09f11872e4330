// Lets allocations fail on request.
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

// While it lives, one allocation of the calling thread by way of new fails, the uNth from its construction on: a plain
// one throws, a nothrow one gives null.
class CNthAllocationFault {
 public:
  explicit CNthAllocationFault(unsigned int uNth);
  ~CNthAllocationFault();
  CNthAllocationFault(const CNthAllocationFault&) = delete;
  CNthAllocationFault& operator=(const CNthAllocationFault&) = delete;
  // Whether that many were made.
  bool HasFailed() const;
};

// While it lives, one CPString of the calling thread that is made of text finds no memory, the uNth from its construction
// on. The strings' memory does not come by way of new.
class CNthStringFault {
 public:
  explicit CNthStringFault(unsigned int uNth);
  ~CNthStringFault();
  CNthStringFault(const CNthStringFault&) = delete;
  CNthStringFault& operator=(const CNthStringFault&) = delete;
  // Whether that many were made.
  bool HasFailed() const;
};

// While it lives, every allocation of the calling thread by way of new that asks for ulBytes or more fails.
class CLargeAllocationFault {
 public:
  explicit CLargeAllocationFault(unsigned long ulBytes);
  ~CLargeAllocationFault();
  CLargeAllocationFault(const CLargeAllocationFault&) = delete;
  CLargeAllocationFault& operator=(const CLargeAllocationFault&) = delete;
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
