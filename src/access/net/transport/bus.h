/* bus.h - the session bus for the service's own calls. Network thread only. */
#pragma once

#include <gio/gio.h>

/* Lives as long as the process; NULL when there is no bus. */
extern GDBusConnection *bus_connection;

/* GDBus's own time-out for a call, 25 s. */
constexpr int default_timeout_ms = -1;

/* Connects, unless that has been done. When the bus goes away, the platform's main loop is stopped. Blocks until the
 * bus has answered, without a limit. */
void session_bus_connect();

/* Why no synchronous call can be made now, or NULL. A stop waits for the call under way, and must not wait for another:
 * with a service behind the bus that does not answer, each takes its whole time-out. */
const char *bus_obstacle();
