/* discovery_socket.h - the UDP socket that discovery requests come in on: the server's udp_fd. Network thread only,
 * outside of the loop. Each step of its opening returns false when the system refuses it. */
#pragma once

struct AccessServer;

/* Creates the socket. */
bool discovery_socket_create(AccessServer *server);

/* Reads its descriptor's flags, and sets them with those for not blocking. */
bool discovery_socket_read_flags(const AccessServer *server, int *flags);
bool discovery_socket_set_nonblocking(const AccessServer *server, int flags);

/* Lets it have its port while others have it, too. */
bool discovery_socket_share_port(const AccessServer *server);

/* Binds it to udp_port on all interfaces and lets it send broadcasts, which is not essential. */
bool discovery_socket_bind(const AccessServer *server);

/* Does nothing when there is no socket. */
void discovery_socket_close(AccessServer *server);
