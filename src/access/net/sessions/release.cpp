#include "net/sessions/release.h"

#include "common/log.h"
#include "net/records/client.h"
#include "net/records/server.h"
#include "net/sessions/audio.h"
#include "net/sessions/session.h"

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

static void drop_id(Client *client, ClientFreeType type) {
    if (client->cl_id == nullptr) return;
    const bool has_table = client->cl_server != nullptr && client->cl_server->clients != nullptr;
    if (type != client_free_local && has_table) remove_from_table(client);  // before the text that is its key
    client->cl_server = nullptr;
    LOG("free cl_id\n");
    g_clear_pointer(&client->cl_id, g_free);
}

void client_free(Client *client, ClientFreeType type) {
    if (client == nullptr) return;
    if (type != client_free_local) audio_client_deauthenticated(client);
    LOG("client free cmd port = %d, event port %d (type: %d)\n", client->cl_cmd_port, client->cl_event_port, type);

    client_leave_visitors(client);
    session_close(client);
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
