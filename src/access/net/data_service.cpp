#include "net/data_service.h"

#include <kesto/device.h>

#include "net/resources.h"
#include "net/server.h"

static constexpr const char *bus_name = "com.quillmont.kesto.Data";
static constexpr const char *object_path = "/com/quillmont/kesto/Data";
static constexpr const char *interface_name = "com.quillmont.kesto.Data.Service";

GVariant *data_service_call(const char *method, GVariant *arguments, int timeout_ms, GError **error) {
    if (!resources_for_bus_call()) {
        g_variant_unref(g_variant_ref_sink(arguments));
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_TOO_MANY_OPEN_FILES, "no descriptor is free for the call");
        return nullptr;
    }
    return g_dbus_connection_call_sync(bus_connection, bus_name, object_path, interface_name, method, arguments,
                                       nullptr, G_DBUS_CALL_FLAGS_NONE, timeout_ms, nullptr, error);
}

char *data_service_read_text(const char *key) {
    return resources_for_bus_call() ? kesto_dbus_data_read_kv(key) : nullptr;
}
