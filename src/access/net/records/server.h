/* server.h - the one record that everything on the network thread shares.
 *
 * The record, its sockets, its loop and its clients are made, used and released on the network thread only, and nothing
 * of them is locked. The main thread reaches this side through the event queue alone. */
#pragma once

#include <cstdint>

#include <czmq.h>
#include <glib.h>

#include <kesto/process.h>

/* Who the device is. Owned texts, each NULL until loaded and then kept until the server is released. */
struct DeviceIdentity {
    char *fw_version;
    char *serial;
    char *oem_serial;
    char *channels;
    char *model;
    char *easy_swap_id;
};

/* The handlers that a session registers with the loop for its client. They stand here because the files that they are
 * in know the session's, and not the other way round. Set by reactor_create, before any session is opened. */
struct SessionHandlers {
    zloop_fn *command; /* of cl_cmds; its argument is the Client */
    zloop_fn *monitor; /* of cl_monitor; likewise */
};

struct AccessServer {
    int32_t udp_fd; /* the discovery socket, or -1 */
    int32_t udp_port;
    zloop_t *loop;           /* the reactor loop, or NULL */
    int32_t auth_port;       /* published by discovery, as 0 in loopback mode */
    zsock_t *auth;           /* the authentication socket (REP), or NULL */
    int32_t next_cmd_port;   /* of the next session */
    int32_t next_event_port; /* of the next session */
    GHashTable *clients;     /* cl_id -> Client; owns neither, see client.h */
    int32_t timer_id;        /* the queue timer's, or -1 */
    KestoProcess *owner;
    DeviceIdentity identity;
    int32_t loopback; /* 1 when the ZeroMQ endpoints are bound to 127.0.0.1 */
    SessionHandlers session_handlers;
    GQueue visitors; /* the clients without a session, the oldest first; see client.h */
    size_t visitors_bytes;
    uint32_t sessions_opened; /* since the start, wrapping */
    uint32_t ticks;           /* of the queue timer, since the start */
};
