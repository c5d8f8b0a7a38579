#include "main/dbus_methods.h"

#include "common/access_private.h"
#include "common/bus_event.h"
#include "common/log.h"

const KestoDbusMethod access_dbus_methods[] = {
    {"Dispatch",                    dbus_mtod_dispatch,
     "<method name='%s'><arg type='i' name='code' /><arg type='d' name='value' />"
     "<arg type='i' name='channel' /></method>"                                                           },
    {"GeneralDispatch",             dbus_mtod_general_dispatch,
     "<method name='%s'><arg type='s' name='key' /><arg type='s' name='value' />"
     "<arg type='s' name='type' /></method>"                                                              },
    {"SnapshotLoadedDispatch",      dbus_mtod_snapshot_loaded_dispatch,
     "<method name='%s'><arg type='u' name='slotid' /></method>"                                          },
    {"SpeakerPresetLoadedDispatch", dbus_mtod_speakerpreset_loaded_dispatch, "<method name='%s'></method>"},
    {nullptr,                       nullptr,                                 nullptr                      },
};

// Dispatch answers with the snapshot's text; callers know it so.
static constexpr const char *dispatch_failed = "Failed to snapshot loaded dispatch";
static constexpr const char *general_failed = "Failed to general dispatch";
static constexpr const char *snapshot_failed = "Failed to snapshot loaded dispatch";
static constexpr const char *speaker_preset_failed = "Failed to speaker preset loaded dispatch";

static constexpr int error_code_failed = 0;
static constexpr GDBusErrorEntry error_entries[] = {
    {error_code_failed, "com.quillmont.kesto.access.Error.Failed"}
};

static GQuark access_error_quark() {
    static gsize registered_quark = 0;
    g_dbus_error_register_error_domain("access-error", &registered_quark, error_entries, G_N_ELEMENTS(error_entries));
    return static_cast<GQuark>(registered_quark);
}

static void answer_error(GDBusMethodInvocation *invocation, const char *message) {
    g_dbus_method_invocation_return_error_literal(invocation, access_error_quark(), error_code_failed, message);
}

static void answer_empty(GDBusMethodInvocation *invocation) {
    g_dbus_method_invocation_return_value(invocation, nullptr);
}

// The private data, or NULL with the reason in the log; `handler` is the caller's name.
static AccessPrivate *running_private(GDBusMethodInvocation *invocation, const char *handler) {
    LOG("%s\n", handler);
    const auto *process = static_cast<KestoProcess *>(g_dbus_method_invocation_get_user_data(invocation));
    if (process == nullptr) {
        LOG("%s:%s:%d - Unable to get private data...\n", __FILE__, handler, __LINE__);
        return nullptr;
    }
    AccessPrivate *priv = access_private(process);
    if (priv == nullptr) LOG("%s:%s:%d - Unable to get presetd private data...\n", __FILE__, handler, __LINE__);
    return priv;
}

static void queue_command(GAsyncQueue *mq, BusCommand command, uint32_t slot) {
    change_counter_increment();
    BusEvent *event = bus_event_new(BUS_EVENT_COMMAND);
    event->command = {command, slot};
    bus_event_push(mq, event);
}

void dbus_mtod_dispatch(GDBusMethodInvocation *invocation) {
    const AccessPrivate *priv = running_private(invocation, __func__);
    if (priv == nullptr) return answer_error(invocation, dispatch_failed);

    constexpr int32_t no_code = -1, no_channel = -1;
    constexpr double no_value = -1.0;
    int32_t code = no_code, channel = no_channel;
    double value = no_value;
    g_variant_get(g_dbus_method_invocation_get_parameters(invocation), "(idi)", &code, &value, &channel);
    LOG("[ACCESS] code=%d,value=%f,ch=%d\n", code, value, channel);

    if (code != no_code && value != no_value && priv->mq != nullptr) {
        BusEvent *event = bus_event_new(BUS_EVENT_ALARM);
        event->alarm = {
            .code = code, .active = 0, .channel = channel, .value = static_cast<float>(value), .reserved = 0};
        bus_event_push(priv->mq, event);
    }
    answer_empty(invocation);
}

void dbus_mtod_general_dispatch(GDBusMethodInvocation *invocation) {
    const AccessPrivate *priv = running_private(invocation, __func__);
    if (priv == nullptr) return answer_error(invocation, general_failed);

    const char *key = nullptr, *value = nullptr, *type = nullptr;
    g_variant_get(g_dbus_method_invocation_get_parameters(invocation), "(&s&s&s)", &key, &value, &type);
    if (key == nullptr || value == nullptr || priv->mq == nullptr) return answer_error(invocation, general_failed);
    LOG("[ACCESS-MTD] key=%s, value=%s, type=%s\n", key, value, log_text(type));

    change_counter_increment();
    BusEvent *event = bus_event_new(BUS_EVENT_KV);
    event->kv = {.key = g_strdup(key), .value = g_strdup(value), .type = g_strdup(type)};
    bus_event_push(priv->mq, event);
    answer_empty(invocation);
}

void dbus_mtod_snapshot_loaded_dispatch(GDBusMethodInvocation *invocation) {
    const AccessPrivate *priv = running_private(invocation, __func__);
    if (priv == nullptr) return answer_error(invocation, snapshot_failed);

    uint32_t slot = 0;
    g_variant_get(g_dbus_method_invocation_get_parameters(invocation), "(u)", &slot);
    if (priv->mq == nullptr) return answer_error(invocation, snapshot_failed);
    LOG("[ACCESS-MTD] slotid=%u\n", slot);

    queue_command(priv->mq, BUS_COMMAND_SNAPSHOT_LOADED, slot);
    answer_empty(invocation);
}

void dbus_mtod_speakerpreset_loaded_dispatch(GDBusMethodInvocation *invocation) {
    const AccessPrivate *priv = running_private(invocation, __func__);
    if (priv == nullptr || priv->mq == nullptr) return answer_error(invocation, speaker_preset_failed);

    queue_command(priv->mq, BUS_COMMAND_SPEAKER_PRESET_LOADED, 0);
    answer_empty(invocation);
}
