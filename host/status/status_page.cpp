#include "host/status/status_page.h"

#include <string>

#include "status_page_files.h"

std::optional<StatusDocument> PageDocument(std::string_view svTarget) {
  const auto fnDocument = [](const char* pszType, const auto& aBytes) {
    return StatusDocument{pszType, std::string(reinterpret_cast<const char*>(aBytes), sizeof(aBytes))};
  };
  if (svTarget == "/") {
    return fnDocument("text/html; charset=utf-8", kStatusPageHtml);
  }
  if (svTarget == "/status.css") {
    return fnDocument("text/css; charset=utf-8", kStatusPageCss);
  }
  if (svTarget == "/status.js") {
    return fnDocument("text/javascript; charset=utf-8", kStatusPageJs);
  }
  return std::nullopt;
}
