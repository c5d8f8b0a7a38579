/* client.h - one remote client, and the table of all of them.
 *
 * The table is the server's `clients`: its key is the record's own cl_id, not a copy, and it owns neither. A record
 * leaves the table through client_free with client_free_known, or through the sweep at the end with
 * client_free_callback (sessions/release.h). Network thread only. */
#pragma once

#include <cstdint>

#include <czmq.h>
#include <glib.h>

struct AccessServer;

constexpr int32_t no_port = -1;

/* What a discovery request can carry beside its marks; a longer text is no id. */
constexpr size_t longest_id = 8185;

/* Records without a session: of who has only been seen. When there are more, or they hold more, the oldest go; a login
 * under such an id then begins anew. */
constexpr size_t visitors_most = 1024, visitors_bytes_most = size_t{4} << 20;

/* Sessions of this id have fixed ports and no monitor. The audio service is told this id in the place of the own one of
 * a client that asked for no_lock. */
constexpr const char *localhost_id = "@localhost";

struct Client {
    AccessServer *cl_server;        /* whose loop and table the record belongs to, or NULL */
    zsock_t *cl_cmds;               /* REP, the client's requests; NULL without a session, like the next two */
    zsock_t *cl_events;             /* PUB, the changes for the client */
    zactor_t *cl_monitor;           /* watches the connections of cl_cmds */
    zmq_pollitem_t cl_cmds_item;    /* has a socket while it is registered with the loop */
    zmq_pollitem_t cl_monitor_item; /* likewise */
    char *cl_enckey;                /* the shared key, wrapped with cl_pubkey, as hexadecimal digits; or NULL */
    char *cl_pubkey;                /* PEM, from discovery; or NULL */
    char *cl_id;
    char *cl_username;            /* of the first login attempt; kept as long as the record */
    uint32_t cl_broadcast;        /* 1: the answer to the current request is to be echoed to the others */
    uint32_t cl_destroy;          /* 1: to be freed once the current message has been answered */
    int32_t cl_cmd_port;          /* no_port when there is no session */
    int32_t cl_event_port;        /* no_port when there is no session */
    uint32_t cl_connections;      /* open on cl_cmds, as counted by the monitor */
    uint32_t cl_accepted;         /* of which it has told, open or not */
    uint32_t discard_my_feedback; /* 1: not told of its own writes; 0 or 1 like the next two, fixed in a session */
    uint32_t hide_secure_info;
    uint32_t no_lock;
    GList as_visitor; /* the record's place among those without a session; its data is NULL when it has none */
    size_t visitor_bytes;
};

/* A record without a session, or NULL when there is no memory. The caller fills cl_server and cl_id. */
Client *client_new();

/* The record of an id, or NULL. */
Client *client_lookup(const AccessServer *server, const char *id);

/* Hands the record, which has its cl_id, over to the table, which must not hold one of the same id. It counts among
 * those without a session; the oldest of them are released when they have become too many. */
void client_insert(AccessServer *server, Client *client);

/* The record has a session from now on, or is about to be released. */
void client_leave_visitors(Client *client);

/* The record must have its cl_id. */
bool is_localhost(const Client *client);

/* Whether the record holds the ports of an open session. */
inline bool has_session(const Client *client) {
    return client->cl_cmd_port != no_port || client->cl_event_port != no_port;
}
