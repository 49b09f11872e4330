// Cache files seen and spoilt from outside, leaving what stands in their write-ahead logs where it is.
#ifndef QMLOGCACHE_TESTS_MODEL_DISK_H_
#define QMLOGCACHE_TESTS_MODEL_DISK_H_

#include <map>
#include <stdexcept>
#include <string>

#include "tests/model/command.h"
#include "tests/model/file_model.h"

// The store does not do as the model does; what() tells where.
class Mismatch : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The file's rows with their payloads decoded. Throws Mismatch when the file is not sound.
std::map<unsigned long long, Row> ReadRows(const std::string& strFile);

// Whether its table is there. Throws Mismatch when the file is not sound.
bool HasTable(const std::string& strFile);

// A file that is sound is spoilt with an empty log, so that the log does not mend it.
void SpoilFile(const std::string& strFile, Spoiling spoiling, bool bSound);

#endif  // QMLOGCACHE_TESTS_MODEL_DISK_H_
