/* client.h - one remote client, and the table of all of them.
 *
 * The table is the server's `clients`: its key is the record's own cl_id, not a copy, and it owns neither. A record
 * leaves it through client_free with type 1, or through the sweep at the end with client_free_callback. Network thread
 * only. */
#ifndef ACCESS_NET_CLIENT_H
#define ACCESS_NET_CLIENT_H

#include <cstdint>
#include <memory>

#include <czmq.h>
#include <glib.h>

#include "common/owned.h"

struct AccessServer;

constexpr int32_t no_port = -1;

/* A session under this id has fixed ports and is never monitored; a client that asks for no_lock is announced so. */
constexpr const char *localhost_id = "@localhost";

struct Client {
    AccessServer *cl_server;        /* whose loop and table the record belongs to, or none */
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

enum ClientFreeType : uint32_t {
    client_free_local = 0, /* release only: never inserted, or its entry is removed by the caller */
    client_free_known = 1, /* also tells the audio service and removes the entry from the table */
};

/* A record without a session, or nothing when there is no memory. The caller fills cl_server and cl_id. */
Client *client_new();

/* Releases the record with all that it holds, in the order in which things depend on each other. An absent one is
 * ignored. May be called from one of the record's own handlers, which then must not touch it again. Takes half a
 * millisecond; with a monitor up to 600 ms. */
void client_free(Client *client, uint32_t type);

/* GHRFunc for the sweep at the end: frees the record, nobody is told, and the entry is to be removed. */
gboolean client_free_callback(void *key, void *client, void *user_data);

/* Frees a record that no table holds and says so. */
void client_drop_local(Client *client);

/* A record that no table holds yet; dropped when it leaves the scope. */
using LocalClient = std::unique_ptr<Client, ByPointer<client_drop_local>>;

/* The record of an id, or nothing. */
Client *client_lookup(const AccessServer *server, const char *id);

/* Hands the record over to the table. There must be none of its id. */
void client_insert(AccessServer *server, Client *client);

inline bool has_session(const Client *client) {
    return client->cl_cmd_port != no_port || client->cl_event_port != no_port;
}

#endif
