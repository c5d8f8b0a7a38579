#include "main/lifecycle.h"

#include "common/access_private.h"
#include "common/bus_event.h"
#include "common/log.h"
#include "common/signals.h"
#include "net/start/network_thread.h"

const KestoOps kesto_access_ops = {
    .reserved_first = nullptr,
    .stop = kesto_access_stop,
    .start = kesto_access_start,
    .reserved_last = nullptr,
};

int kesto_access_start(KestoProcess *process) {
    auto *priv = static_cast<AccessPrivate *>(g_try_malloc0(sizeof(AccessPrivate)));
    if (priv == nullptr) {
        LOG_FAILED("g_try_new0");
        stop_signals_unblock();  // there will be no network thread to take them
        return -1;
    }
    priv->mq = bus_event_queue_new();
    process->priv = priv;  // before the thread exists: it reaches the queue through the process

    // A reference of our own: joining consumes the one that the new thread came with.
    priv->thread = g_thread_ref(g_thread_new("net-thread", kesto_access_net_start, process));
    LOG("started self=%p,priv=%p,net=%p...\n", static_cast<void *>(process), static_cast<void *>(priv),
        static_cast<void *>(priv->thread));
    return 0;
}

static void join_network_thread(AccessPrivate *priv) {
    LOG("wait stop zmq\n");
    g_thread_join(priv->thread);
    LOG("zmq thread down\n");
    g_thread_unref(priv->thread);
    priv->thread = nullptr;
    LOG("net thread joined...\n");
}

int kesto_access_stop(KestoProcess *process) {
    AccessPrivate *priv = access_private(process);
    if (priv == nullptr) return -1;

    kesto_access_net_stop(process);
    if (priv->thread != nullptr) join_network_thread(priv);
    g_clear_pointer(&priv->mq, g_async_queue_unref);
    g_free(priv);
    process->priv = nullptr;  // a D-Bus call that still comes is answered with an error
    return 0;
}
