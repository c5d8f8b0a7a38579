/* server.h - the network thread and the one record that everything on it shares.
 *
 * The record, its sockets, its loop and its clients are made, used and released on the network thread only, and nothing
 * of them is locked. The main thread reaches this side through the event queue alone. */
#ifndef ACCESS_NET_SERVER_H
#define ACCESS_NET_SERVER_H

#include <cstdint>

#include <czmq.h>
#include <gio/gio.h>

#include <kesto/process.h>

#include "net/identity.h"

constexpr int32_t discovery_udp_port = 8004;
constexpr int32_t auth_tcp_port = 60000;
constexpr int32_t cmd_port_first = 62001;
constexpr int32_t event_port_first = 63001;
constexpr size_t queue_period_ms = 33;

struct AccessServer {
    int32_t udp_fd; /* the discovery socket, or -1 */
    int32_t udp_port;
    zloop_t *loop;           /* the reactor loop, or none */
    int32_t auth_port;       /* published by discovery */
    zsock_t *auth;           /* the authentication socket (REP), or none */
    int32_t next_cmd_port;   /* of the next session */
    int32_t next_event_port; /* of the next session */
    GHashTable *clients;     /* cl_id -> Client; owns neither, see client.h */
    int32_t timer_id;        /* the queue timer's, or -1 */
    KestoProcess *owner;
    DeviceIdentity identity;
    int32_t loopback; /* 1 when the ZeroMQ endpoints are bound to 127.0.0.1 */
};

/* The one server of the process, or none. Network thread only. */
extern AccessServer *srv;

/* The session bus for the service's own calls; lives as long as the process. Network thread only. */
extern GDBusConnection *bus_connection;

/* GDBus's own time-out for a call, 25 s. */
constexpr int default_timeout_ms = -1;

/* How the two sockets of the server are registered with its loop. */
extern zmq_pollitem_t discovery_item, auth_item;

/* The thread's body; `process` is the KestoProcess. Serves until SIGINT, SIGTERM or a stop event, tears the server down
 * and stops the platform's main loop. A start-up that fails does the same at once. Returns nothing. */
void *kesto_access_net_start(void *process);

#endif
