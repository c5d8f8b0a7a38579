/* Every handler of the loop is named here: those of the server's own sockets and of its timer are registered at once,
 * those of a session's sockets when the session is opened. */
#include "net/start/reactor.h"

#include <czmq.h>

#include "common/log.h"
#include "net/discovery/discovery.h"
#include "net/notification/notification.h"
#include "net/records/server.h"
#include "net/requests/command_channel.h"
#include "net/sessions/authentication.h"
#include "net/sessions/connections.h"
#include "net/transport/connection_table.h"
#include "net/transport/limits.h"

static constexpr uint32_t drop_period_ms = 250;  // of silent connections; no timer of its own wakes the loop for it
static constexpr uint32_t ticks_between_drops = drop_period_ms / queue_period_ms + 1;
static constexpr size_t for_ever = 0;  // the number of times that a timer fires

static zmq_pollitem_t discovery_item, auth_item;

static void set_tracing(zloop_t *loop) {
    const char *setting = g_getenv("CZMQ_VERBOSE_LOOP");
    if (setting != nullptr) {
        LOG("czmq verbose loop: %s\n", setting);
        if (g_str_equal(setting, "1") || g_str_equal(setting, "on") || g_str_equal(setting, "yes")) {
            LOG("czmq verbose loop VERBOSE\n");
        }
    }
    zloop_set_verbose(loop, setting != nullptr);
}

bool reactor_create(AccessServer *server) {
    server->session_handlers = {.command = client_read, .monitor = client_monitor_event};
    server->loop = zloop_new();
    if (server->loop == nullptr) return false;
    set_tracing(server->loop);
    return true;
}

void reactor_serve_discovery(AccessServer *server) {
    discovery_item = {.socket = nullptr, .fd = server->udp_fd, .events = ZMQ_POLLIN, .revents = 0};
    if (zloop_poller(server->loop, &discovery_item, server_discovery, server) == -1) {
        LOG("error registering server_discovery\n");
    }
    zloop_poller_set_tolerant(server->loop, &discovery_item);
}

static int on_login(zloop_t *loop, zmq_pollitem_t *item, void *server);

bool reactor_serve_logins(AccessServer *server) {
    auth_item = {.socket = zsock_resolve(server->auth), .fd = 0, .events = ZMQ_POLLIN, .revents = 0};
    if (zloop_poller(server->loop, &auth_item, on_login, server) == -1) return false;
    zloop_poller_set_tolerant(server->loop, &auth_item);
    return true;
}

// The loop serves in the order of registration, and begins anew after a handler that has changed what there is to
// serve. The authentication socket stands behind all sessions, so that a flood of logins waits for them.
static int on_login(zloop_t *loop, zmq_pollitem_t *item, void *argument) {
    auto *server = static_cast<AccessServer *>(argument);
    const uint32_t opened_before = server->sessions_opened;
    const int result = server_auth(loop, item, server);
    if (server->sessions_opened != opened_before) {
        zloop_poller_end(loop, &auth_item);
        reactor_serve_logins(server);
    }
    return result;
}

static int on_tick(zloop_t *loop, int timer_id, void *argument) {
    const int result = server_mq_timer(loop, timer_id, argument);
    if (result != 0) return result;
    connection_table_turn();
    auto *server = static_cast<AccessServer *>(argument);
    if (++server->ticks % ticks_between_drops == 0 && limits_take_refusal()) connection_table_drop_silent();
    return 0;
}

bool reactor_start_timer(AccessServer *server) {
    server->timer_id = zloop_timer(server->loop, queue_period_ms, for_ever, on_tick, server);
    return server->timer_id != -1;
}

void reactor_run(const AccessServer *server) {
    LOG("zsys_catch_interrupts\n");
    zsys_catch_interrupts();
    const int result = zloop_start(server->loop);
    LOG("end zmq mainloop: %d\n", result);
}

void reactor_stop_timer(AccessServer *server) {
    if (server->timer_id < 0) return;
    LOG("stop timer\n");
    zloop_timer_end(server->loop, server->timer_id);
    server->timer_id = -1;
}

void reactor_destroy(AccessServer *server) {
    if (server->loop == nullptr) return;
    LOG("Stop s_loop poller and destroy\n");
    zloop_destroy(&server->loop);
}
