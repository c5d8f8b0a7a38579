/* reactor.h - the loop of the network thread, and which handler serves what in it. Network thread only; nothing of it
 * is called from inside the loop. */
#pragma once

struct AccessServer;

/* Creates the loop, sets its tracing and fills in the handlers of sessions. False when the loop cannot be created. */
bool reactor_create(AccessServer *server);

/* Registers the discovery socket. A refusal is logged; the service then runs without discovery. */
void reactor_serve_discovery(AccessServer *server);

/* Registers the authentication socket. False when the loop refuses it. */
bool reactor_serve_logins(AccessServer *server);

/* Starts the queue timer. False when that fails. */
bool reactor_start_timer(AccessServer *server);

/* Runs the loop until SIGINT, SIGTERM, a stop event or the end of the ZeroMQ context. */
void reactor_run(const AccessServer *server);

/* Each does nothing when there is nothing to end. */
void reactor_stop_timer(AccessServer *server);
void reactor_destroy(AccessServer *server);
