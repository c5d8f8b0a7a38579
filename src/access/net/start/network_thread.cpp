/* The start of the network side is one list: each step is tried in turn and the first essential one that fails ends it.
 * What exists by then is recorded in the server, so that one teardown serves every length that the list can have
 * reached. */
#include "net/start/network_thread.h"

#include <czmq.h>
#include <glib.h>

#include "common/access_private.h"
#include "common/bus_event.h"
#include "common/log.h"
#include "common/signals.h"
#include "net/device/identity.h"
#include "net/device/static_discovery.h"
#include "net/discovery/discovery_socket.h"
#include "net/records/server.h"
#include "net/sessions/auth_socket.h"
#include "net/sessions/ports.h"
#include "net/sessions/release.h"
#include "net/start/reactor.h"
#include "net/transport/bus.h"
#include "net/transport/endpoint.h"
#include "net/transport/limits.h"
#include "net/transport/replaced_calls.h"

static constexpr int32_t discovery_udp_port = 8004;
static constexpr int32_t auth_tcp_port = 60000;

static AccessServer *srv = nullptr;

static bool create_server(void *process) {
    if (process == nullptr) return false;
    srv = g_new0(AccessServer, 1);
    session_bus_connect();
    srv->udp_fd = -1;
    srv->udp_port = discovery_udp_port;
    srv->auth_port = auth_tcp_port;
    srv->next_cmd_port = first_ports.command;
    srv->next_event_port = first_ports.event;
    srv->timer_id = -1;

    LOG("[NET] access first reading settings, it can fail\n");
    const int complete = server_load_identity(srv);
    LOG("result: %d\n", complete);
    srv->owner = static_cast<KestoProcess *>(process);
    LOG("[NET] setting private to %p\n", process);
    return true;
}

static bool create_discovery_socket() {
    if (!discovery_socket_create(srv)) return false;
    srv->loopback = bind_address_is_loopback() ? 1 : 0;
    return true;
}

static bool create_clients() {
    srv->clients = g_hash_table_new_full(g_str_hash, g_str_equal, nullptr, nullptr);
    return srv->clients != nullptr;
}

static bool init_czmq() {
    limits_give_memory_back();
    limits_raise_descriptors();
    if (!limits_allow_start()) return false;
    limits_raise_sockets();
    replaced_calls_init(limits_descriptors());
    const bool ready = zsys_init() != nullptr;
    stop_signals_unblock();  // from here on this thread takes them, through CZMQ's handler
    return ready;
}

// The loop, with what may fail without ending the start.
static bool create_loop() {
    if (!reactor_create(srv)) return false;
    ensure_static_discovery(srv);
    reactor_serve_discovery(srv);
    return true;
}

void *kesto_access_net_start(void *process) {
    int flags = -1;
    if (!create_server(process)) LOG_FAILED("user_data cast NULL");
    else if (!create_discovery_socket()) LOG_FAILED("socket udp error");
    else if (!discovery_socket_read_flags(srv, &flags)) LOG_FAILED("fcntl F_GETFL");
    else if (!discovery_socket_set_nonblocking(srv, flags)) LOG_FAILED("fcntl F_SETFL to set not blocking");
    else if (!discovery_socket_share_port(srv)) LOG_FAILED("setsockopt SO_REUSEADDR");
    else if (!discovery_socket_bind(srv)) LOG_FAILED("bind on udp socket");
    else if (!create_clients()) LOG_FAILED("error creating z hash");
    else if (!init_czmq()) LOG_FAILED("error init default context");
    else if (!create_loop()) LOG_FAILED("error creating z loop");
    else if (!auth_socket_create(srv)) LOG_FAILED("error creating REP socket");
    else if (!auth_socket_bind(srv)) LOG("error auth socket\n");
    else if (!reactor_serve_logins(srv)) LOG("error creating poller for auth socket\n");
    else if (!reactor_start_timer(srv)) LOG("error creating timer\n");
    else reactor_run(srv);

    server_destroy();
    kesto_mainloop_stop();
    return nullptr;
}

static void free_clients() {
    if (srv->clients == nullptr) return;
    g_hash_table_foreach_remove(srv->clients, client_free_callback, nullptr);
    g_clear_pointer(&srv->clients, g_hash_table_unref);
}

void server_destroy() {
    if (srv == nullptr) return;
    stop_signals_block();  // the stop has begun, and a further signal could only spoil it
    LOG("destroy srv\n");
    reactor_stop_timer(srv);
    auth_socket_close(srv);
    free_clients();  // before the loop, from which each client takes its pollers
    reactor_destroy(srv);
    discovery_socket_close(srv);
    identity_clear(&srv->identity);
    g_clear_pointer(&srv, g_free);

    LOG("zsys_shutdown\n");
    zsys_shutdown();
}

void kesto_access_net_stop(KestoProcess *process) {
    if (process == nullptr || process->priv == nullptr) {
        LOG_FAILED("do nothing for stop");
        return;
    }
    GAsyncQueue *mq = access_private(process)->mq;
    if (mq != nullptr) bus_event_push(mq, bus_event_new(BUS_EVENT_STOP));
    kesto_mainloop_stop();
}
