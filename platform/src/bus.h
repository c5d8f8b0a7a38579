/* bus.h - the session bus as the library's own parts use it. Any thread. */
#pragma once

#include <gio/gio.h>

/* GDBus's own time-out for a call, 25 s. */
constexpr int default_timeout_ms = -1;

/* The process's one connection to the session bus, a new reference, or NULL. It never ends the process when it is
 * closed. Blocks while the bus is being connected: for that and for its greeting at most 25 s each, and while
 * connecting at most about 1 s once a SIGINT or SIGTERM waits that the process keeps blocked. */
GDBusConnection *bus_connect();

struct BusMethod {
    const char *service, *path, *interface, *name;
};

/* Calls the method and waits for the answer: the reply, owned by the caller, or NULL after any failure. Takes over
 * floating `parameters`. */
GVariant *bus_call(GDBusConnection *connection, const BusMethod &method, GVariant *parameters,
                   int timeout_ms = default_timeout_ms);
