#ifndef QMLOGCACHE_HOST_PROTOCOL_STANDARD_DESCRIPTORS_H_
#define QMLOGCACHE_HOST_PROTOCOL_STANDARD_DESCRIPTORS_H_

// Opens /dev/null for each of the descriptors 0 to 2 that the process was started without, lest a socket or a file take
// its place and be written to as if it were the terminal. To be called first in main, before anything is opened.
void FillStandardDescriptors();

#endif  // QMLOGCACHE_HOST_PROTOCOL_STANDARD_DESCRIPTORS_H_
