/* shutdown.h - how the network side ends. */
#ifndef ACCESS_NET_SHUTDOWN_H
#define ACCESS_NET_SHUTDOWN_H

#include <kesto/process.h>

/* Asks the network thread to end: queues a stop event and stops the platform's main loop. Main thread; returns at once,
 * whether or not the network thread still runs. Does nothing for a process without private data. */
void kesto_access_net_stop(KestoProcess *process);

/* Releases the server with everything that it holds, and shuts CZMQ down. Network thread, outside of the loop. Does
 * nothing when there is no server. */
void server_destroy();

#endif
