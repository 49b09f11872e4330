// Random commands: mostly the daily road of records, now and then a limit, a failure or a spoilt file.
#ifndef QMLOGCACHE_TESTS_MODEL_GENERATORS_H_
#define QMLOGCACHE_TESTS_MODEL_GENERATORS_H_

#include <rapidcheck.h>

#include "tests/model/command.h"

rc::Gen<Command> AnyCommand();

#endif  // QMLOGCACHE_TESTS_MODEL_GENERATORS_H_
