/* client.h - one remote client, and the table of all of them.
 *
 * The table is the server's `clients`: its key is the record's own cl_id, not a copy, and it owns neither. A record
 * is released, and leaves the table, through client_free alone (sessions/release.h). Network thread only. */
#pragma once

#include <cstdint>

#include <czmq.h>

struct AccessServer;

constexpr int32_t no_port = -1;

/* A session under this id has fixed ports and is never monitored; a client that asks for no_lock is announced so. */
constexpr const char *localhost_id = "@localhost";

struct Client {
    AccessServer *cl_server;        /* whose loop and table the record belongs to, or NULL */
    zsock_t *cl_cmds;               /* REP, the client's requests */
    zsock_t *cl_events;             /* PUB, the changes for the client */
    zactor_t *cl_monitor;           /* watches the connections of cl_cmds */
    zmq_pollitem_t cl_cmds_item;    /* has a socket while it is registered with the loop */
    zmq_pollitem_t cl_monitor_item; /* likewise */
    char *cl_enckey;                /* the shared key, wrapped with cl_pubkey */
    char *cl_pubkey;                /* PEM, from discovery */
    char *cl_id;
    char *cl_username;            /* of the first login attempt; kept as long as the record */
    uint32_t cl_broadcast;        /* 1: the answer to the current request is to be echoed to the others */
    uint32_t cl_destroy;          /* 1: to be freed once the current message has been answered */
    int32_t cl_cmd_port;          /* no_port when there is no session */
    int32_t cl_event_port;        /* no_port when there is no session */
    uint32_t cl_connections;      /* open on cl_cmds, as counted by the monitor */
    uint32_t discard_my_feedback; /* 0 or 1, like the next two; fixed while a session lasts */
    uint32_t hide_secure_info;
    uint32_t no_lock;
};

/* A record without a session, or NULL when there is no memory. The caller fills cl_server and cl_id. */
Client *client_new();

/* The record of an id, or NULL. */
Client *client_lookup(const AccessServer *server, const char *id);

/* Hands the record over to the table, which must not hold one of the same id. */
void client_insert(AccessServer *server, Client *client);

inline bool has_session(const Client *client) {
    return client->cl_cmd_port != no_port || client->cl_event_port != no_port;
}
