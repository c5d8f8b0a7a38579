/* auth_socket.h - the authentication socket: the server's `auth`. Network thread only, outside of the loop. */
#pragma once

struct AccessServer;

/* Creates the socket. False when the process cannot have one. */
bool auth_socket_create(AccessServer *server);

/* Sets its options and binds it to auth_port. False, with the result in the log, when the port is not to be had. */
bool auth_socket_bind(const AccessServer *server);

/* Closes the socket; answers that have not left are dropped. Does nothing when there is no socket. */
void auth_socket_close(AccessServer *server);
