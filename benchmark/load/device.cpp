#include "device.h"

#include <stdexcept>

#include <gio/gio.h>

static constexpr const char *name = "com.quillmont.kesto.Access", *path = "/com/quillmont/kesto/Access",
                            *interface_name = "com.quillmont.kesto.Access.Service";
static constexpr const char *key = "/Device/Status/Channels/Channel-3/OutputLevel", *type = "f";
static constexpr int report_timeout_ms = 20000;
static constexpr int hear_timeout_ms = 20000, settle_timeout_ms = 200, settle_attempts = 100;

void device_report(const std::string &value) {
    static GDBusConnection *const bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) reply = g_dbus_connection_call_sync(
        bus, name, path, interface_name, "GeneralDispatch", g_variant_new("(sss)", key, value.c_str(), type), nullptr,
        G_DBUS_CALL_FLAGS_NO_AUTO_START, report_timeout_ms, nullptr, &error);
    if (reply == nullptr) throw std::runtime_error(error->message);
}

// Whether the client hears this very value; older ones are passed over.
static bool hears(const Client &client, const std::string &value) {
    while (const auto message = receive_published(client, settle_timeout_ms)) {
        if (message->event().change().value() == value) return true;
    }
    return false;
}

void device_settle(const std::vector<Client> &clients) {
    for (int attempt = 0; attempt < settle_attempts; ++attempt) {
        const std::string value = "settle-" + std::to_string(attempt);
        device_report(value);
        bool all = true;
        for (const Client &client : clients) all = hears(client, value) && all;
        if (all) return;
    }
    throw std::runtime_error("not all clients hear the device");
}

void clients_hear(std::span<const Client> clients, int count) {
    for (const Client &client : clients) {
        for (int i = 0; i < count; ++i) {
            if (receive_published(client, hear_timeout_ms) == nullptr) throw std::runtime_error("an event got lost");
        }
    }
}
