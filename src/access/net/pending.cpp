#include "common/bus_event.h"
#include "common/private.h"
#include "net/authentication.h"
#include "net/client.h"
#include "net/command_channel.h"
#include "net/monitor.h"
#include "net/discovery.h"
#include "net/notification.h"
#include "net/server.h"
#include "net/static_discovery.h"

int server_load_identity(AccessServer *) { return 0; }
void identity_clear(DeviceIdentity *) {}
void ensure_static_discovery(AccessServer *) {}
int server_discovery(zloop_t *, zmq_pollitem_t *, void *) { return 0; }
int server_auth(zloop_t *, zmq_pollitem_t *, void *) { return 0; }
int client_read(zloop_t *, zmq_pollitem_t *, void *) { return 0; }
void client_start_monitor(Client *) {}
int server_mq_timer(zloop_t *, int, void *server) {
    const AccessPrivate *priv = access_private(static_cast<AccessServer *>(server)->owner);
    bool stop = false;
    while (BusEvent *event = bus_event_try_pop(priv->mq)) {
        stop = stop || event->kind == BUS_EVENT_STOP;
        bus_event_free(event);
    }
    return stop ? -1 : 0;
}
