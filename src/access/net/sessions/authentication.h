/* authentication.h - serves the authentication socket, on which clients log in. Network thread only. */
#pragma once

#include <czmq.h>

/* Reactor handler of the authentication socket; `server` is the AccessServer. Receives one request and answers it.
 * Returns 0. */
int server_auth(zloop_t *loop, zmq_pollitem_t *item, void *server);
