// A client's private key, as libnats is to be given it.
#ifndef QMLOGCACHE_HOST_LINK_NATS_KEY_FILE_H_
#define QMLOGCACHE_HOST_LINK_NATS_KEY_FILE_H_

#include <string>

// Whether the PEM file can be given to libnats, which asks the terminal for a passphrase and waits for the answer, and
// waits for a writer of a FIFO. False with a reason that names the file; a file without a key is libnats' to refuse.
bool CheckKeyFile(const std::string& strFile, std::string& strReason);

#endif  // QMLOGCACHE_HOST_LINK_NATS_KEY_FILE_H_
