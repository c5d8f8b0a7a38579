#include "net/client.h"

#include <cassert>

#include "common/log.h"
#include "common/signals.h"
#include "net/audio.h"
#include "net/server.h"

static constexpr int monitor_linger_ms = 0;
static constexpr int cmds_linger_ms = 50;  // the answer to a log-out must still get out
static constexpr int events_linger_ms = 0;

// A socket is closed by another thread; its port is free for the next session only a little later.
static constexpr gulong pause_after_release_us = 500;

static constexpr struct {
    char *Client::*text;
    const char *log;
} owned_texts[] = {
    {&Client::cl_username, "free cl_username\n"},
    {&Client::cl_pubkey,   "free cl_pubkey\n"  },
    {&Client::cl_enckey,   "free cl_enckey\n"  },
};

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

static zloop_t *client_loop(const Client *client) {
    return client->cl_server != nullptr ? client->cl_server->loop : nullptr;
}

static void drop_monitor(Client *client) {
    if (client->cl_monitor_item.socket != nullptr) {
        LOG("free cl_monitor poller\n");
        if (client_loop(client) != nullptr) zloop_poller_end(client_loop(client), &client->cl_monitor_item);
        client->cl_monitor_item.socket = nullptr;
    }
    if (client->cl_monitor != nullptr) {
        LOG("free cl_monitor\n");
        const StopSignalsHeld held;  // a signal would cut the wait for the actor's end short
        zsock_set_linger(client->cl_monitor, monitor_linger_ms);
        zactor_destroy(&client->cl_monitor);
    }
}

static void drop_command_socket(Client *client) {
    if (client->cl_cmds_item.socket != nullptr) {
        LOG("free cl_cmds poller\n");
        if (client_loop(client) != nullptr) zloop_poller_end(client_loop(client), &client->cl_cmds_item);
        else LOG("loop unknown\n");
        client->cl_cmds_item.socket = nullptr;
    }
    if (client->cl_cmds != nullptr) {
        LOG("free cl_cmds\n");
        zsock_set_linger(client->cl_cmds, cmds_linger_ms);
        zsock_destroy(&client->cl_cmds);
    }
}

static void drop_event_socket(Client *client) {
    if (client->cl_events == nullptr) return;
    LOG("free cl_events\n");
    zsock_set_linger(client->cl_events, events_linger_ms);
    zsock_destroy(&client->cl_events);
}

static void drop_texts(Client *client) {
    for (const auto &owned : owned_texts) {
        if (client->*owned.text == nullptr) continue;
        LOG("%s", owned.log);
        g_clear_pointer(&(client->*owned.text), g_free);
    }
}

static void remove_from_table(const Client *client) {
    LOG("remove cl_id from list of known client\n");
    if (!g_hash_table_remove(client->cl_server->clients, client->cl_id)) {
        LOG("strange error removing client: %s\n", client->cl_id);
    }
}

static void drop_id(Client *client, uint32_t type) {
    if (client->cl_id == nullptr) return;
    const bool has_table = client->cl_server != nullptr && client->cl_server->clients != nullptr;
    if (type != client_free_local && has_table) remove_from_table(client);  // before the text that is its key
    client->cl_server = nullptr;
    LOG("free cl_id\n");
    g_clear_pointer(&client->cl_id, g_free);
}

void client_free(Client *client, uint32_t type) {
    if (client == nullptr) return;
    if (type != client_free_local) audio_client_deauthenticated(client);
    LOG("client free cmd port = %d, event port %d (type: %d)\n", client->cl_cmd_port, client->cl_event_port, type);

    drop_monitor(client);  // before the socket that it watches
    drop_command_socket(client);
    drop_event_socket(client);
    drop_texts(client);
    client->cl_cmd_port = no_port;
    client->cl_event_port = no_port;
    drop_id(client, type);
    g_free(client);
    g_usleep(pause_after_release_us);
}

gboolean client_free_callback(void *, void *client, void *) {
    LOG("client_free_callback\n");
    client_free(static_cast<Client *>(client), client_free_local);
    return TRUE;
}

void client_drop_local(Client *client) {
    LOG("free local client no map remove\n");
    client_free(client, client_free_local);
}

Client *client_lookup(const AccessServer *server, const char *id) {
    return static_cast<Client *>(g_hash_table_lookup(server->clients, id));
}

void client_insert(AccessServer *server, Client *client) {
    assert(client_lookup(server, client->cl_id) == nullptr);
    g_hash_table_insert(server->clients, client->cl_id, client);
}
