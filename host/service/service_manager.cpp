#include "host/service/service_manager.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <ctime>

namespace {

// A text of one line, so that a path with a line break says nothing of its own.
std::string OneLine(std::string strText) {
  std::replace_if(
      strText.begin(), strText.end(), [](unsigned char byte) { return byte < ' '; }, '?');
  return strText;
}

}  // namespace

// A service manager that cannot be told is none that could be told about it: results are not looked at.
namespace service_manager {

void TellStatus(const std::string& strStatus) {
  static_cast<void>(sd_notifyf(0, "STATUS=%s", OneLine(strStatus).c_str()));
}

void TellReady(const std::string& strStatus) {
  static_cast<void>(sd_notifyf(0, "READY=1\nSTATUS=%s", OneLine(strStatus).c_str()));
}

void TellReloading() {
  timespec now{};
  static_cast<void>(clock_gettime(CLOCK_MONOTONIC, &now));
  const uint64_t u64Now = static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
  static_cast<void>(sd_notifyf(0, "RELOADING=1\nMONOTONIC_USEC=%" PRIu64 "\nSTATUS=Reopening the link", u64Now));
}

void TellStopping(const std::string& strStatus) {
  static_cast<void>(sd_notifyf(0, "STOPPING=1\nSTATUS=%s", OneLine(strStatus).c_str()));
}

void Feed() {
  static_cast<void>(sd_notify(0, "WATCHDOG=1"));
}

std::chrono::microseconds WatchdogTime() {
  uint64_t u64Microseconds = 0;
  if (sd_watchdog_enabled(0, &u64Microseconds) <= 0 || u64Microseconds > INT64_MAX) {
    return {};
  }
  return std::chrono::microseconds(u64Microseconds);
}

}  // namespace service_manager
