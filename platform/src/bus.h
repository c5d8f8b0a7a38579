/* bus.h - the session bus as the library's own parts use it. Any thread. */
#ifndef KESTO_SRC_BUS_H
#define KESTO_SRC_BUS_H

#include <gio/gio.h>

/* The process's one connection to the session bus, a new reference, or nothing. It never ends the process when it is
 * closed. Blocks while the bus is being connected. */
GDBusConnection *bus_connect();

struct BusMethod {
    const char *service, *path, *interface, *name;
};

/* Calls the method and waits for the answer, at most 25 s: the reply, owned by the caller, or nothing after any
 * failure. Takes over floating `parameters`. */
GVariant *bus_call(GDBusConnection *connection, const BusMethod &method, GVariant *parameters);

#endif
