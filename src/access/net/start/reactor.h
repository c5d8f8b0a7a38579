/* reactor.h - the loop of the network thread, and which handler serves what in it. Network thread only; nothing of it
 * is called from inside the loop. */
#pragma once

struct AccessServer;

/* Creates the loop. False when that fails. */
bool reactor_create(AccessServer *server);

/* Has discovery requests served; without its poller the service runs on, without discovery. */
void reactor_serve_discovery(AccessServer *server);

/* Has log-ins served, and for each session that they open its requests and its connections. False when that fails. */
bool reactor_serve_logins(AccessServer *server);

/* Starts the queue timer. False when that fails. */
bool reactor_start_timer(AccessServer *server);

/* Runs the loop until SIGINT, SIGTERM or a stop event. */
void reactor_run(const AccessServer *server);

/* Each does nothing when there is nothing to end. */
void reactor_stop_timer(AccessServer *server);
void reactor_destroy(AccessServer *server);
