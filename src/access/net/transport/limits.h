/* limits.h - what is left to open. CZMQ, libzmq and GDBus abort the process when they run out in the middle of a call,
 * so each such call is preceded by a look, and takes its ordinary failure path when there is too little. Any thread,
 * where nothing else is said. */
#pragma once

#include <cstddef>

/* Descriptors that are never given to connections, so that a login still finds some. */
constexpr int descriptors_kept_from_connections = 24;

/* Lets the process have as many descriptors as the system allows it. Once, at the start of the network thread. */
void limits_raise_descriptors();

/* The same for ZeroMQ sockets; starts CZMQ, and so needs descriptors. Once, on the network thread, before the first
 * socket. */
void limits_raise_sockets();

/* Has large blocks of memory given back to the system as soon as they are released. Once, at the start of the network
 * thread. */
void limits_give_memory_back();

/* Enough descriptors and memory to start CZMQ and open the first ZeroMQ socket. */
bool limits_allow_start();

/* Enough descriptors and memory for one more ZeroMQ socket that listens. */
bool limits_allow_socket();

/* Enough descriptors and memory for a socket's monitor, and a thread for it can be started. */
bool limits_allow_monitor();

/* Enough memory to decode and answer a request of that many bytes. */
bool limits_allow_request(size_t bytes);

/* Enough descriptors for one synchronous D-Bus call. */
bool limits_allow_bus_call();

/* A connection that was accepted with this descriptor leaves enough memory to all others, and beside the descriptors
 * that no connection gets that many. */
bool limits_leave(int descriptor, size_t descriptors);

/* How many ZeroMQ sockets the service allows itself, to be compared with an own count: ZSYS_MAX_SOCKETS, or what libzmq
 * can have when that is no number above 0. libzmq's own limit is always the highest: it aborts there, and counts a
 * closed socket until it has been closed in the background. */
size_t limits_sockets();

/* Descriptors that the process may have, free or not; 0 when the system does not tell. */
size_t limits_descriptors();

/* Says that something has been refused for want of descriptors. */
void limits_note_refusal();

/* Whether a start, a socket, a monitor or a connection has been refused since the last call, for want of descriptors or
 * memory. */
bool limits_take_refusal();
