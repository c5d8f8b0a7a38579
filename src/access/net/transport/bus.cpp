#include "net/transport/bus.h"

#include <czmq.h>

#include <kesto/process.h>

#include "common/bus_event.h"
#include "net/transport/limits.h"

GDBusConnection *bus_connection = nullptr;

static void on_bus_closed(GDBusConnection *, gboolean, GError *, void *) { kesto_mainloop_stop(); }

void session_bus_connect() {
    if (bus_connection != nullptr) return;
    bus_connection = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    if (bus_connection == nullptr) return;
    // GDBus would end the process by a signal that the main thread keeps blocked: the stop must not depend on it.
    g_dbus_connection_set_exit_on_close(bus_connection, FALSE);
    g_signal_connect(bus_connection, "closed", G_CALLBACK(on_bus_closed), nullptr);
}

const char *bus_obstacle() {
    if (zsys_interrupted != 0 || bus_event_stop_queued()) return "the service is stopping";
    if (!limits_allow_bus_call()) return "no descriptor is free for the call";
    return nullptr;
}
