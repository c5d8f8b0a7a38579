/* bus.h - the session bus for the service's own calls. Network thread only. */
#pragma once

#include <gio/gio.h>

/* Lives as long as the process; NULL before session_bus_connect, and when there is no bus. */
extern GDBusConnection *bus_connection;

/* Stands for GDBus's own time-out for a call, 25 s. */
constexpr int default_timeout_ms = -1;

/* Connects, unless that has been done. When the bus goes away, the platform's main loop is stopped. Blocks until the
 * bus has answered, without a limit. */
void session_bus_connect();

/* NULL, or why no synchronous call may begin: the service is stopping, or no descriptor is free. A stop waits for the
 * call under way, and for that one only: each may take its whole time-out. */
const char *bus_obstacle();
