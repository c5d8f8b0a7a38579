#include "net/data_service.h"

#include <czmq.h>

#include <kesto/device.h>

#include "common/bus_event.h"
#include "common/signals.h"
#include "net/resources.h"
#include "net/server.h"

static constexpr const char *bus_name = "com.quillmont.kesto.Data";
static constexpr const char *object_path = "/com/quillmont/kesto/Data";
static constexpr const char *interface_name = "com.quillmont.kesto.Data.Service";

// Why no call can be made now, or nothing. With a data service that does not answer every call takes its whole
// time-out, so that a stop waits for the one under way and for no further one.
static const char *obstacle_to_call() {
    if (zsys_interrupted != 0 || bus_event_stop_queued()) return "the service is stopping";
    if (!resources_for_bus_call()) return "no descriptor is free for the call";
    return nullptr;
}

GVariant *data_service_call(const char *method, GVariant *arguments, int timeout_ms, GError **error) {
    const char *obstacle = obstacle_to_call();
    if (obstacle != nullptr) {
        g_variant_unref(g_variant_ref_sink(arguments));
        g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, obstacle);
        return nullptr;
    }
    return g_dbus_connection_call_sync(bus_connection, bus_name, object_path, interface_name, method, arguments,
                                       nullptr, G_DBUS_CALL_FLAGS_NONE, timeout_ms, nullptr, error);
}

char *data_service_read_text(const char *key) {
    // Single keys are read during the start, too, in which a stop signal waits until this thread takes it.
    if (stop_signal_waits() || obstacle_to_call() != nullptr) return nullptr;
    return kesto_dbus_data_read_kv(key);
}
