#include "net/sessions/room.h"

#include <glib.h>

#include "net/records/client.h"
#include "net/records/server.h"
#include "net/transport/connection_table.h"
#include "net/transport/limits.h"

// A socket has one descriptor, and a session two more to listen at. A session that is granted is of no use without its
// connections, which come later: one to each of its two sockets.
static constexpr size_t listeners_per_session = 2, connections_per_session = 2;

// Without any session: its own, and those that connections must leave to it.
static constexpr size_t descriptors_of_service = 21 + descriptors_kept_from_connections;

static SessionCount count_sessions(const AccessServer *server) {
    SessionCount count = {.sockets = 1, .sessions = 0};  // the authentication socket
    GHashTableIter clients;
    void *value = nullptr;
    g_hash_table_iter_init(&clients, server->clients);
    while (g_hash_table_iter_next(&clients, nullptr, &value)) {
        const auto *client = static_cast<const Client *>(value);
        if (client->cl_cmds == nullptr) continue;
        count.sessions += 1;
        count.sockets += 1;
        if (client->cl_events != nullptr) count.sockets += 1;
        if (client->cl_monitor != nullptr) count.sockets += one_monitor.sockets;
    }
    return count;
}

// Of the service, its sockets, all connections, and those that the open sessions and the further ones still lack.
static size_t descriptors_needed(SessionCount count, SessionCount further) {
    return descriptors_of_service + count.sockets + further.sockets +
           (count.sessions + further.sessions) * listeners_per_session + connection_table_count_all() +
           connection_table_count_missing() + further.sessions * connections_per_session;
}

bool session_room_left(const AccessServer *server, SessionCount further) {
    const SessionCount count = count_sessions(server);
    const bool left = count.sockets + further.sockets <= limits_sockets() &&
                      descriptors_needed(count, further) <= limits_descriptors();
    if (!left) limits_note_refusal();
    return left;
}
