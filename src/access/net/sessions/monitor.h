/* monitor.h - the watch over the connections of a client's command socket. Network thread only; the actor behind it
 * runs in a thread of CZMQ's and speaks through its pipe. What its events mean stands in connections.h. */
#pragma once

struct Client;

/* The events that a monitor reports, by name. */
constexpr const char *monitor_accepted = "ACCEPTED", *monitor_disconnected = "DISCONNECTED";

/* Starts and registers the monitor of the client's cl_cmds, once per socket; may block for some waits of 600 ms.
 * Afterwards cl_monitor is a running, registered monitor, or NULL with the reason in the log. */
void client_start_monitor(Client *client);

/* Ends the monitor. To be called before the socket that it watches is closed; may block for 600 ms. Does nothing for a
 * client without a monitor. */
void client_stop_monitor(Client *client);
