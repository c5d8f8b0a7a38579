#include "net/sessions/audio.h"

#include <gio/gio.h>

#include "common/log.h"
#include "net/records/client.h"
#include "net/transport/bus.h"

static constexpr const char *bus_name = "com.quillmont.kesto.Audio";
static constexpr const char *object_path = "/com/quillmont/kesto/Audio";
static constexpr const char *interface_name = "com.quillmont.kesto.Audio.Service";

static void call_audio(const char *method, const Client *client) {
    const char *id = client->no_lock == 1 ? localhost_id : client->cl_id;
    // Anything may have been an id on the network; what is not UTF-8 cannot be a D-Bus text.
    if (id == nullptr || !g_utf8_validate(id, -1, nullptr)) return;
    g_dbus_connection_call(bus_connection, bus_name, object_path, interface_name, method, g_variant_new("(s)", id),
                           nullptr, G_DBUS_CALL_FLAGS_NONE, default_timeout_ms, nullptr, nullptr, nullptr);
}

void audio_client_authenticated(const Client *client) {
    if (bus_connection == nullptr) return;
    LOG("clientAuthenticated no_lock:%d id:%s\n", client->no_lock, log_text(client->cl_id));
    call_audio("ClientAuthenticated", client);
}

void audio_client_deauthenticated(const Client *client) {
    if (bus_connection == nullptr) return;
    call_audio("ClientDeauthenticated", client);
}
