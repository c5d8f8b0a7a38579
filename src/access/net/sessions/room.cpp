#include "net/sessions/room.h"

#include <glib.h>

#include "net/records/client.h"
#include "net/records/server.h"
#include "net/transport/limits.h"

// A socket has one descriptor, and a session two more to listen at. A session that is granted is of no use without its
// connections, which come later and are three: to the authentication, the command and the event socket.
static constexpr size_t descriptors_beside_sockets = 2 + 3;

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

bool session_room_left(const AccessServer *server, SessionCount further) {
    const SessionCount count = count_sessions(server);
    const size_t sockets = count.sockets + further.sockets, sessions = count.sessions + further.sessions;
    return sockets <= limits_sockets() &&
           sockets + sessions * descriptors_beside_sockets + descriptors_of_service <= limits_descriptors();
}
