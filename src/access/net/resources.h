/* resources.h - what is left to open. CZMQ, libzmq and GDBus abort the process when they run out in the middle of a
 * call, so each such call is preceded by a look, and takes its ordinary failure path when there is too little.
 *
 * Connections come in by themselves and are not asked for. They are limited where they are accepted: the last
 * descriptors and the last memory stay the service's own, and what would need them is closed at once. A client connects
 * again by itself, so it gets in as soon as there is room. Any thread, where nothing else is said. */
#ifndef ACCESS_NET_RESOURCES_H
#define ACCESS_NET_RESOURCES_H

#include <cstddef>

/* Lets the process have as many descriptors as the system allows it. Once, at the start of the network side. */
void resources_raise_descriptor_limit();

/* The same for ZeroMQ sockets; starts CZMQ, and so needs descriptors. Once, before the first socket. */
void resources_raise_socket_limit();

/* Enough descriptors and memory to start CZMQ and open the first ZeroMQ socket. */
bool resources_for_start();

/* Enough descriptors and memory for one more ZeroMQ socket that listens. */
bool resources_for_socket();

/* Enough descriptors and memory for a socket's monitor, and a thread for it can be started. */
bool resources_for_monitor();

/* ZeroMQ sockets that the process may have: ZSYS_MAX_SOCKETS, or what libzmq can have when that is unset. Each caller
 * counts its own: libzmq aborts at its limit, and a socket counts there until it is closed in the background, so its
 * limit is always the highest. */
size_t resources_socket_limit();

/* Descriptors that the process may have, whether they are free or not. */
size_t resources_descriptor_limit();

/* Enough memory to decode and answer a request of that many bytes. */
bool resources_for_request(size_t bytes);

/* Enough descriptors for one synchronous D-Bus call. */
bool resources_for_bus_call();

/* Makes room when a connection or a socket has been refused since the last call: closes the connections that have been
 * silent for a second before they had said that they speak ZeroMQ. Network thread, at short intervals. */
void resources_drop_silent_connections();

#endif
