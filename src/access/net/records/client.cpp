#include "net/records/client.h"

#include <cassert>

#include <glib.h>

#include "net/records/server.h"

Client *client_new() {
    auto *client = static_cast<Client *>(g_try_malloc0(sizeof(Client)));
    if (client == nullptr) return nullptr;
    client->cl_cmds_item.events = ZMQ_POLLIN;
    client->cl_monitor_item.events = ZMQ_POLLIN;
    client->cl_cmd_port = no_port;
    client->cl_event_port = no_port;
    client->discard_my_feedback = 1;
    return client;
}

bool is_localhost(const Client *client) { return g_str_equal(client->cl_id, localhost_id); }

Client *client_lookup(const AccessServer *server, const char *id) {
    return static_cast<Client *>(g_hash_table_lookup(server->clients, id));
}

void client_insert(AccessServer *server, Client *client) {
    assert(client_lookup(server, client->cl_id) == nullptr);
    g_hash_table_insert(server->clients, client->cl_id, client);
}
