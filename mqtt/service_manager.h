/* service_manager.h - what systemd is told, when it has started the program; else nothing happens. */
#pragma once

#include <string>

/* Lines such as "READY=1" and "STATUS=text". Does not wait; what cannot be sent is lost. */
void tell_service_manager(const std::string &lines);

/* How often it wants to hear "WATCHDOG=1" at the least; 0: not at all. */
int watchdog_interval_ms();
