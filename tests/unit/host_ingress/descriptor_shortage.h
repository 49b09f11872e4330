// accept of this test program: the system's, for which a test can let the process be out of descriptors.
//
// They are short during the call of accept alone. The sanitizers open descriptors of their own at any moment, and take
// memory for unreadable when they get none.
#ifndef QMLOGCACHE_TESTS_UNIT_HOST_INGRESS_DESCRIPTOR_SHORTAGE_H_
#define QMLOGCACHE_TESTS_UNIT_HOST_INGRESS_DESCRIPTOR_SHORTAGE_H_

#include <atomic>

struct DescriptorShortage {
  std::atomic<bool> bOn{false};
  std::atomic<unsigned int> uRefused{0};  // calls that failed with EMFILE
};
extern DescriptorShortage g_descriptorShortage;

#endif  // QMLOGCACHE_TESTS_UNIT_HOST_INGRESS_DESCRIPTOR_SHORTAGE_H_
