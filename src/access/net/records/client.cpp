#include "net/records/client.h"

#include <cassert>
#include <cstring>
#include <initializer_list>

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

static size_t bytes_of(const Client *client) {
    size_t bytes = sizeof(Client);
    for (const char *text : {client->cl_id, client->cl_username, client->cl_pubkey, client->cl_enckey}) {
        if (text != nullptr) bytes += strlen(text);
    }
    return bytes;
}

// Nobody has to be told of it, and it has nothing but texts.
static void forget(AccessServer *server, Client *client) {
    g_hash_table_remove(server->clients, client->cl_id);
    client_leave_visitors(client);
    for (char *text : {client->cl_id, client->cl_username, client->cl_pubkey, client->cl_enckey}) g_free(text);
    g_free(client);
}

void client_insert(AccessServer *server, Client *client) {
    assert(client_lookup(server, client->cl_id) == nullptr);
    g_hash_table_insert(server->clients, client->cl_id, client);
    client->as_visitor.data = client;
    client->visitor_bytes = bytes_of(client);
    g_queue_push_tail_link(&server->visitors, &client->as_visitor);
    server->visitors_bytes += client->visitor_bytes;
    while (server->visitors.length > visitors_most || server->visitors_bytes > visitors_bytes_most) {
        forget(server, static_cast<Client *>(g_queue_peek_head(&server->visitors)));
    }
}

void client_leave_visitors(Client *client) {
    if (client->as_visitor.data == nullptr) return;
    g_queue_unlink(&client->cl_server->visitors, &client->as_visitor);
    client->cl_server->visitors_bytes -= client->visitor_bytes;
    client->as_visitor.data = nullptr;
}
