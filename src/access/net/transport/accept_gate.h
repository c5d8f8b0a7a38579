/* accept_gate.h - which connections get in. libzmq accepts every connection and has no setting for a limit; with the
 * last descriptor gone its thread spins, and whatever else needs one aborts. So the C library's accept4, which libzmq
 * calls, is replaced in this program: a connection that would take one of the last descriptors or the last memory is
 * closed at once. A client connects again by itself, so it gets in as soon as there is room. */
#pragma once

/* Makes room when something has been refused since the last call (limits.h): shuts down the connections that have sent
 * nothing for a second and have not finished ZeroMQ's greeting. Network thread, at short intervals. */
void accept_gate_drop_silent();
