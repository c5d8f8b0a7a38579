/* What counts is a connection's accept and close, not a client's: whatever opens a TCP connection to the command port
 * counts. */
#include "net/sessions/connections.h"

#include "common/log.h"
#include "net/records/client.h"
#include "net/records/server.h"
#include "net/sessions/audio.h"
#include "net/sessions/login.h"
#include "net/sessions/monitor.h"
#include "net/sessions/release.h"
#include "net/transport/connection_table.h"

// From the close of a connection to the monitor's report; the loop stands meanwhile.
static constexpr long event_wait_ms = 50;

static void log_off(Client *client) {
    LOG("no other command connection opened, so auto-logoff (%s)\n", client->cl_id);
    GVariant *reply = client_authenticate(client, {});
    if (reply != nullptr) g_variant_unref(g_variant_ref_sink(reply));
    LOG("free client (%u)\n", client->cl_destroy);
    client_free(client, client_free_known);
}

static void connection_accepted(Client *client) {
    LOG("%s socket\n", monitor_accepted);
    client->cl_connections += 1;
    client->cl_accepted += 1;
    if (client->cl_connections == 1) {
        LOG("first same connection: (%s) %u\n", client->cl_id, client->cl_connections);
        audio_client_authenticated(client);
    } else {
        LOG("reopen same connection: (%s) %u\n", client->cl_id, client->cl_connections);
    }
}

static void connection_closed(Client *client) {
    LOG("%s socket\n", monitor_disconnected);
    if (client->cl_connections > 0) client->cl_connections -= 1;
    if (client->cl_connections == 0) return log_off(client);
    LOG("client deconnection but it is not the last one: (%s) %u\n", client->cl_id, client->cl_connections);
}

enum class ConnectionEvent { none, accepted, disconnected };

static ConnectionEvent event_named(const char *name) {
    if (g_str_equal(name, monitor_accepted)) return ConnectionEvent::accepted;
    if (g_str_equal(name, monitor_disconnected)) return ConnectionEvent::disconnected;
    LOG("unmanaged '%s' socket event\n", name);
    return ConnectionEvent::none;
}

static ConnectionEvent receive_event(zactor_t *monitor) {
    zmsg_t *message = zmsg_recv(monitor);
    if (message == nullptr) return ConnectionEvent::none;
    char *name = zmsg_popstr(message);
    ConnectionEvent event = ConnectionEvent::none;
    if (name != nullptr) event = event_named(name);
    else LOG("no event!!!\n");
    zstr_free(&name);
    zmsg_destroy(&message);
    return event;
}

int client_monitor_event(zloop_t *loop, zmq_pollitem_t *item, void *argument) {
    auto *client = static_cast<Client *>(argument);
    bool complete = false;
    if (client == nullptr) LOG_FAILED("client has to be not NULL");
    else if (client->cl_monitor == nullptr) LOG_FAILED("client monitor has to be not NULL");
    else if (loop == nullptr) LOG_FAILED("loop has to be not NULL");
    else if (item == nullptr) LOG_FAILED("poller has to be not NULL");
    else if (item->socket == nullptr) LOG_FAILED("socket has to be not NULL");
    else complete = true;
    if (!complete) {
        LOG("error in client_monitor_event\n");
        return 0;
    }

    LOG("client monitor event %d\n", client->cl_cmd_port);
    switch (receive_event(client->cl_monitor)) {
        case ConnectionEvent::accepted: connection_accepted(client); break;
        case ConnectionEvent::disconnected: connection_closed(client); break;
        case ConnectionEvent::none: break;
    }
    return 0;
}

static bool is_monitored(const Client *client) {
    return client != nullptr && client->cl_monitor_item.socket != nullptr;
}

// It had a connection and has none any more; the monitor may not even have told that there was one.
static bool is_ending(const Client *client) {
    const int port = client->cl_cmd_port;
    const bool had_one = client->cl_connections > 0 || connection_table_count_accepted(port) > client->cl_accepted;
    return had_one && !connection_table_has_live(port);
}

void settle_connections(AccessServer *server, const char *id) {
    Client *client = client_lookup(server, id);
    while (is_monitored(client)) {
        zmq_pollitem_t event = client->cl_monitor_item;
        if (zmq_poll(&event, 1, is_ending(client) ? event_wait_ms : 0) <= 0) return;
        client_monitor_event(server->loop, &client->cl_monitor_item, client);
        client = client_lookup(server, id);
    }
}
