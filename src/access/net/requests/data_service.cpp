#include "net/requests/data_service.h"

#include "net/transport/bus.h"

static constexpr const char *bus_name = "com.quillmont.kesto.Data";
static constexpr const char *object_path = "/com/quillmont/kesto/Data";
static constexpr const char *interface_name = "com.quillmont.kesto.Data.Service";

GVariant *data_service_call(const char *method, GVariant *arguments, int timeout_ms, GError **error) {
    const char *obstacle = bus_obstacle();
    if (obstacle != nullptr) {
        g_variant_unref(g_variant_ref_sink(arguments));
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, obstacle);
        return nullptr;
    }
    return g_dbus_connection_call_sync(bus_connection, bus_name, object_path, interface_name, method, arguments,
                                       nullptr, G_DBUS_CALL_FLAGS_NONE, timeout_ms, nullptr, error);
}
