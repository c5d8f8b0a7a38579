/* accept_gate.h - which connections get in. libzmq accepts whoever comes, and with the last descriptor gone its thread
 * would spin and whatever else needs one would abort. It cannot be told how many it may have, so the C library's
 * accept4, which it calls, is replaced in this program: the last descriptors and the last memory stay the service's
 * own, and a connection that would need them is closed at once. A client connects again by itself, so it gets in as
 * soon as there is room. */
#pragma once

/* Makes room when something has been refused since the last call (limits.h): closes the connections that have been
 * silent for a second before they had said that they speak ZeroMQ. Network thread, at short intervals. */
void accept_gate_drop_silent();
