/* connections.h - counts the connections of a monitored client: the first one announces the client to the audio
 * service, the close of the last one logs it off. Network thread only. */
#pragma once

#include <czmq.h>

struct AccessServer;

/* Reactor handler of cl_monitor_item: takes one event of the client's monitor. Returns 0. May free the client. */
int client_monitor_event(zloop_t *loop, zmq_pollitem_t *item, void *client);

/* Handles what the monitor of an id's session has reported, and waits some milliseconds for the rest when all its
 * connections have closed, so that a login under that id does not meet a session that is over. */
void settle_connections(AccessServer *server, const char *id);
