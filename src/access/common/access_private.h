/* access_private.h - the service's own data, kept in the process object while the service runs. Made before the network
 * thread starts and released after it has ended, so that neither thread sees it half-made. The main thread writes both
 * members; the network thread reads only mq. */
#pragma once

#include <glib.h>

#include <kesto/process.h>

struct AccessPrivate {
    GThread *thread; /* the network thread, or NULL once joined */
    GAsyncQueue *mq; /* of BusEvent, or NULL once released */
};

/* The private data of a process, which is not NULL; NULL before the start and after the stop. */
inline AccessPrivate *access_private(const KestoProcess *process) {
    return static_cast<AccessPrivate *>(process->priv);
}
