/* discovery.h - answers the UDP requests by which control software finds the device, and remembers who asked.
 * Network thread only, inside the reactor's callback; each request may block for up to five D-Bus calls of at most 25
 * s. */
#pragma once

#include <string_view>

#include <czmq.h>

struct Client;

/* Reactor handler of the discovery socket; `server` is the AccessServer. Handles one datagram. Returns 0. */
int server_discovery(zloop_t *loop, zmq_pollitem_t *item, void *server);

/* Stores the request's key and id in a record that has neither, and wraps the shared key. 0, or -1 with the reason in
 * the log; the record keeps both and is the caller's to free.
 * `request` is a framed datagram of at most 8191 bytes, without NUL bytes. */
int client_process_discovery(Client *client, std::string_view request);
