/* command_channel.h - the private command socket of a logged-in client. Network thread only. */
#pragma once

#include <czmq.h>

/* Reactor handler of cl_cmds_item: one request, carried out to its end with its D-Bus calls, answered, echoed to the
 * others when it changed something. Returns 0. May free the client. */
int client_read(zloop_t *loop, zmq_pollitem_t *item, void *client);
