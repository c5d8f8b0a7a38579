#include "net/shutdown.h"

#include <unistd.h>

#include "common/bus_event.h"
#include "common/log.h"
#include "common/private.h"
#include "common/signals.h"
#include "net/client.h"
#include "net/server.h"

static constexpr int auth_linger_ms = 0;  // answers that have not left are dropped

void kesto_access_net_stop(KestoProcess *process) {
    if (process == nullptr || process->priv == nullptr) {
        LOG_FAILED("do nothing for stop");
        return;
    }
    GAsyncQueue *mq = access_private(process)->mq;
    if (mq != nullptr) bus_event_push(mq, bus_event_new(BUS_EVENT_STOP));
    kesto_mainloop_stop();
}

static void stop_timer() {
    if (srv->timer_id < 0) return;
    LOG("stop timer\n");
    zloop_timer_end(srv->loop, srv->timer_id);
    srv->timer_id = -1;
}

static void destroy_auth_socket() {
    if (srv->auth == nullptr) return;
    LOG("Stop auth destroy socket\n");
    zsock_set_linger(srv->auth, auth_linger_ms);
    zsock_destroy(&srv->auth);
}

static void free_clients() {
    if (srv->clients == nullptr) return;
    g_hash_table_foreach_remove(srv->clients, client_free_callback, nullptr);
    g_clear_pointer(&srv->clients, g_hash_table_unref);
}

static void destroy_loop() {
    if (srv->loop == nullptr) return;
    LOG("Stop s_loop poller and destroy\n");
    zloop_destroy(&srv->loop);
}

static void close_udp_socket() {
    if (srv->udp_fd == -1) return;
    close(srv->udp_fd);
    srv->udp_fd = -1;
}

void server_destroy() {
    if (srv == nullptr) return;
    stop_signals_block();  // the stop has begun, and a further signal could only spoil it
    LOG("destroy srv\n");
    stop_timer();
    destroy_auth_socket();
    free_clients();  // before the loop, from which each client takes its pollers
    destroy_loop();
    close_udp_socket();
    identity_clear(&srv->identity);
    g_clear_pointer(&srv, g_free);

    LOG("zsys_shutdown\n");
    zsys_shutdown();
}
