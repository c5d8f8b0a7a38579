/* lifecycle.h - the operations through which the platform starts and stops the service. Main thread only. */
#pragma once

#include <kesto/process.h>

/* For kesto_process_add_ops. */
extern const KestoOps kesto_access_ops;

/* Creates the private data with its queue and starts the network thread. 0, or -1 when there is no memory; SIGINT
 * and SIGTERM then have their usual effect on the process. */
int kesto_access_start(KestoProcess *process);

/* Asks the network thread to stop, waits for its end and releases the private data. The wait is as long as the
 * D-Bus call under way needs, at most 25 s, in a multi-write 65 s; no further one begins. Each known client adds about
 * a millisecond, with a monitor up to 600 ms. 0, or -1 when the process has no private data. */
int kesto_access_stop(KestoProcess *process);
