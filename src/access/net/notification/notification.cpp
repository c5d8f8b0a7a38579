#include "net/notification/notification.h"

#include <memory>

#include "common/access_private.h"
#include "common/bus_event.h"
#include "common/log.h"
#include "common/owned.h"
#include "net/records/client.h"
#include "net/records/server.h"
#include "net/transport/connection_table.h"
#include "net/transport/frame.h"

static constexpr int32_t broadcast_alarm_code = 40;
static constexpr int not_encoded = -1;
static constexpr gint64 delivery_us = gint64{queue_period_ms} * 1000;
static constexpr int never_postponed = 10;  // events of a tick, whatever time they take

using OwnedEvent = std::unique_ptr<BusEvent, ByPointer<bus_event_free>>;

// Each encoder returns 0, or not_encoded when the event is not to be sent or cannot be encoded.
static int encode_alarm(Proto *handle, ProtoAlarm *alarm) {
    if (alarm->code != broadcast_alarm_code) {
        LOG("DBUS: DISCARD code=%d\n", alarm->code);
        return not_encoded;
    }
    LOG("DBUS: broadcasting code=%d,value=%f,channel=%d\n", alarm->code, static_cast<double>(alarm->value),
        alarm->channel);
    alarm->active = 1;
    return proto_encode_alarm_event(handle, alarm);
}

static int encode_key_value(Proto *handle, const BusKeyValue &kv) {
    LOG("DBUS: broadcasting key=%s, value=%s, type=%s\n", kv.key, kv.value, log_text(kv.type));
    return proto_encode_kv(handle, kv.key, kv.value, kv.type);
}

static int encode_command(Proto *handle, const BusCommandRecord &record) {
    LOG("DBUS: broadcasting command: %d\n", record.command);
    switch (record.command) {
        case BUS_COMMAND_SNAPSHOT_LOADED:
            LOG("DBUS: broadcasting command: loaded snapshot %d\n", record.slot);
            return proto_encode_RestoreSnapshot(handle, record.slot);
        case BUS_COMMAND_SPEAKER_PRESET_LOADED:
            LOG("DBUS: broadcasting command: speaker preset loaded\n");
            return proto_encode_SpeakerPresetLoaded(handle);
        default: LOG("DBUS: broadcasting command: %d not yet supported\n", record.command); return not_encoded;
    }
}

static int encode_event(Proto *handle, BusEvent *event) {
    switch (event->kind) {
        case BUS_EVENT_ALARM: return encode_alarm(handle, &event->alarm);
        case BUS_EVENT_KV: return encode_key_value(handle, event->kv);
        case BUS_EVENT_COMMAND: return encode_command(handle, event->command);
        default: return not_encoded;
    }
}

void broadcast(const AccessServer *server, Proto *handle, Client *source) {
    BroadcastContext context = {.proto = handle, .source = source, .count = 0};
    g_hash_table_foreach(server->clients, client_notify, &context);
    LOG("broadcast to %u client\n", context.count);
}

static void deliver(const AccessServer *server, BusEvent *event) {
    const CodecHandle handle(proto_new());
    if (encode_event(handle.get(), event) == not_encoded) return;
    if (encoded_frame(handle.get()).bytes == nullptr) {
        LOG("protobuf encoding error\n");
        return;
    }
    LOG("DISPACH CHANGE TO ALL CLIENTS\n");
    broadcast(server, handle.get(), nullptr);
}

int server_mq_timer(zloop_t *, int, void *argument) {
    const auto *server = static_cast<AccessServer *>(argument);
    if (server == nullptr) {
        LOG("arg == NULL not supported\n");
        return -1;
    }
    const AccessPrivate *priv = access_private(server->owner);
    if (priv == nullptr || priv->mq == nullptr) {
        LOG("priv->mq == NULL\n");
        return 0;
    }
    // What is queued meanwhile, or finds no time, waits for the next tick, or a busy device would keep the loop from
    // all else.
    const int queued = g_async_queue_length(priv->mq);
    const gint64 end = g_get_monotonic_time() + delivery_us;
    for (int number = 0; number < queued; ++number) {
        if (number >= never_postponed && g_get_monotonic_time() >= end) break;
        const OwnedEvent event{bus_event_try_pop(priv->mq)};
        if (!event) break;
        if (event->kind == BUS_EVENT_STOP) {
            LOG("request to stop\n");
            return -1;
        }
        deliver(server, event.get());
    }
    return 0;
}

static bool is_own_feedback(const BroadcastContext *context, const Client *client) {
    const bool discard = client->discard_my_feedback != 0 && client == context->source;
    LOG("discard_notifiation(%d): %d %p %p\n", discard, client->discard_my_feedback,
        static_cast<void *>(context->source), static_cast<const void *>(client));
    return discard;
}

static void send_broadcast(BroadcastContext *context, const Client *client, const char *key) {
    const Frame frame = encoded_frame(context->proto);
    if (frame.bytes == nullptr) {
        LOG("avoid to notify empty message\n");
        return;
    }
    LOG("[%s] broadcasting to %s...\n", client->cl_id, key);
    if (!send_frame(zsock_resolve(client->cl_events), frame, 0)) {
        LOG("[%s] Error broadcasting to %s\n", client->cl_id, key);
        return;
    }
    connection_table_published(client->cl_event_port, frame.size);
    context->count += 1;
    LOG("[%s] Message broadcast to %s...\n", client->cl_id, key);
}

void client_notify(void *key_argument, void *client_argument, void *context_argument) {
    const auto *key = static_cast<const char *>(key_argument);
    const auto *client = static_cast<const Client *>(client_argument);
    auto *context = static_cast<BroadcastContext *>(context_argument);
    if (context == nullptr) LOG("not valid param\n");
    else if (client == nullptr) LOG("not valid client for key '%s'\n", key);
    else if (client->cl_events == nullptr) LOG("not valid client event (%s) for key '%s'\n", client->cl_id, key);
    else if (client->cl_destroy == 1) LOG("client is mark to be destroyed (%s) for key '%s'\n", client->cl_id, key);
    else if (context->proto == nullptr) LOG("not valid proto\n");
    else if (is_own_feedback(context, client)) LOG("avoid to notify myself\n");
    else send_broadcast(context, client, key);
}

int client_change_callback(Proto *handle) {
    auto *client = static_cast<Client *>(proto_get_private(handle));
    if (client != nullptr) {
        LOG("set broadcast to other client\n");
        client->cl_broadcast = 1;
    }
    change_counter_increment();
    return 0;
}

uint32_t client_getchange_callback() { return change_counter_value(); }
