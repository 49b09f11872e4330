// The page: status_page.html, .css and .js, which the build puts into the program.
#ifndef QMLOGCACHE_HOST_STATUS_STATUS_PAGE_H_
#define QMLOGCACHE_HOST_STATUS_STATUS_PAGE_H_

#include <optional>
#include <string_view>

#include "host/status/status_server.h"

// "/", "/status.css" and "/status.js"; nothing for any other target.
std::optional<StatusDocument> PageDocument(std::string_view svTarget);

#endif  // QMLOGCACHE_HOST_STATUS_STATUS_PAGE_H_
