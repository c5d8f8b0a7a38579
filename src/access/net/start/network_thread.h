/* network_thread.h - how the network side starts and ends. */
#pragma once

#include <kesto/process.h>

/* The thread's body, once in a process; `process` is the KestoProcess. Serves until SIGINT, SIGTERM or a stop event,
 * tears the server down and stops the platform's main loop. A start-up that fails does the same at once. Returns NULL.
 */
void *kesto_access_net_start(void *process);

/* Asks the network thread to end: queues a stop event, where there is a queue, and stops the platform's main loop. Main
 * thread; returns at once, whether or not the network thread still runs. Does nothing for NULL and for a process
 * without private data. */
void kesto_access_net_stop(KestoProcess *process);

/* Releases the server with everything that it holds, and shuts CZMQ down. Network thread, outside of the loop. Does
 * nothing when there is no server. */
void server_destroy();
