/* monitor.h - counts the connections of a client's command socket, and logs the client off when the last one closes.
 * Network thread only; the actor behind it runs in a thread of CZMQ's and speaks through its pipe. */
#ifndef ACCESS_NET_MONITOR_H
#define ACCESS_NET_MONITOR_H

#include <czmq.h>

struct Client;

/* Starts and registers the monitor of the client's cl_cmds, once per socket; may block for three waits of 600 ms.
 * Afterwards cl_monitor is a running, registered monitor, or empty with the reason in the log. */
void client_start_monitor(Client *client);

/* Reactor handler of cl_monitor_item. Returns 0. May free the client. */
int client_monitor_event(zloop_t *loop, zmq_pollitem_t *item, void *client);

#endif
