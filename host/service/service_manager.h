// What the host tells the service manager that started it (systemd, Type=notify). Started by anything else it tells
// nobody, and every function does nothing.
#ifndef QMLOGCACHE_HOST_SERVICE_SERVICE_MANAGER_H_
#define QMLOGCACHE_HOST_SERVICE_SERVICE_MANAGER_H_

#include <chrono>
#include <string>

namespace service_manager {

// strStatus is for people, one line; what "systemctl status" shows.
void TellStatus(const std::string& strStatus);
// The start, or a reload, is done.
void TellReady(const std::string& strStatus);
void TellReloading();
void TellStopping(const std::string& strStatus);
// All is well, for the watchdog of the service manager.
void Feed();
// How long it waits for one Feed after the other; zero when it does not wait for any.
std::chrono::microseconds WatchdogTime();

}  // namespace service_manager

#endif  // QMLOGCACHE_HOST_SERVICE_SERVICE_MANAGER_H_
