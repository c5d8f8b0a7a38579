/* notification.h - delivers changes to the clients' event sockets: those that the device reports through the queue, and
 * those that one client makes, echoed to the others, and to the writer as well if it asked for that. Network thread
 * only; a broadcast visits every client within one call and never waits for a slow one. */
#pragma once

#include <cstdint>

#include <czmq.h>

#include <kesto/proto.h>

struct AccessServer;
struct Client;

/* One broadcast of one encoded handle. */
struct BroadcastContext {
    Proto *proto;
    Client *source; /* whose own write is echoed; NULL for the device's own changes */
    uint32_t count; /* clients to which the message was handed */
};

/* The timer's period, and how long one tick delivers when it has more than ten events. */
constexpr uint32_t queue_period_ms = 33;

/* Reactor timer handler: encodes and broadcasts what is queued, in order. Only when more than ten events take longer
 * than the period, the rest waits for the next tick. `server` is the AccessServer. 0, also without a queue; -1, which
 * ends the loop, for NULL and on a stop event: what is queued behind it stays there. */
int server_mq_timer(zloop_t *loop, int timer_id, void *server);

/* Visit function for the table of clients: sends the context's message to one of them, unless the client has no event
 * socket, is marked to be freed, or is the source and wanted no feedback. */
void client_notify(void *key, void *client, void *context);

/* Runs client_notify over the whole table and logs to how many it was handed. The handle is borrowed and has been
 * encoded; `source` may be NULL. */
void broadcast(const AccessServer *server, Proto *handle, Client *source);

/* The codec's change callback: marks the handle's client for the echo and counts the change. Returns 0. */
int client_change_callback(Proto *handle);

/* The change counter, for the codec. */
uint32_t client_getchange_callback();
