/* discovery_socket.h - the UDP socket that discovery requests come in on: the server's udp_fd. Network thread only,
 * outside of the loop. Each step of its opening returns false when the system refuses it. */
#pragma once

struct AccessServer;

/* Creates the socket and sets SO_LINGER; a refusal of that is only logged. */
bool discovery_socket_create(AccessServer *server);

/* Its descriptor's flags; and the same flags with O_NONBLOCK set. */
bool discovery_socket_read_flags(const AccessServer *server, int *flags);
bool discovery_socket_set_nonblocking(const AccessServer *server, int flags);

/* Sets SO_REUSEADDR. */
bool discovery_socket_share_port(const AccessServer *server);

/* Sets SO_BROADCAST, of which a refusal is only logged, and binds the socket to udp_port on all interfaces. */
bool discovery_socket_bind(const AccessServer *server);

/* Does nothing when there is no socket. */
void discovery_socket_close(AccessServer *server);
