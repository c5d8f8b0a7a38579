// The library's way to the session bus. Its one difficulty: where no file descriptor is left, GLib ends the process
// instead of failing the call, so that the shortage has to be noticed before.
#include "bus.h"

#include <sys/eventfd.h>
#include <unistd.h>

constexpr int default_timeout_ms = -1;  // GDBus's own, 25 s

// GDBus wakes a waiting call through an eventfd of the call's own.
static bool descriptor_available() {
    const int probe = eventfd(0, EFD_CLOEXEC);
    if (probe == -1) return false;
    close(probe);
    return true;
}

GDBusConnection *bus_connect() {
    if (!descriptor_available()) return nullptr;
    GDBusConnection *connection = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    if (connection != nullptr) g_dbus_connection_set_exit_on_close(connection, FALSE);
    return connection;
}

GVariant *bus_call(GDBusConnection *connection, const BusMethod &method, GVariant *parameters) {
    g_autoptr(GVariant) owned = g_variant_ref_sink(parameters);
    if (!descriptor_available()) return nullptr;
    return g_dbus_connection_call_sync(connection, method.service, method.path, method.interface, method.name, owned,
                                       nullptr, G_DBUS_CALL_FLAGS_NONE, default_timeout_ms, nullptr, nullptr);
}
