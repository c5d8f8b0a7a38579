/* The start of a monitor, and its end, are the moments at which a signal is not survived: an actor that is told of the
 * interrupt before it has its socket aborts the process, and one that is cut short in its end is not waited for. SIGINT
 * and SIGTERM wait until it is over. */
#include "net/sessions/monitor.h"

#include <czmq.h>

#include "common/log.h"
#include "common/signals.h"
#include "net/records/client.h"
#include "net/records/server.h"
#include "net/sessions/room.h"
#include "net/transport/limits.h"

static constexpr int pipe_linger_ms = 0;
static constexpr int pipe_timeout_ms = 600;
static constexpr gulong pause_after_teardown_us = 30;

// CZMQ aborts in the start of an actor when it has been interrupted or lacks descriptors, and waits for ever for a
// thread.
static bool actor_can_start(const Client *client) {
    return zsys_interrupted == 0 && session_room_left(client->cl_server, one_monitor) && limits_allow_monitor();
}

static void set_pipe_options(zactor_t *monitor) {
    zsock_t *pipe = zactor_sock(monitor);
    if (pipe == nullptr) {
        LOG("cl_monitor actor does not have socket\n");
        return;
    }
    zsock_set_linger(pipe, pipe_linger_ms);
    zsock_set_rcvtimeo(pipe, pipe_timeout_ms);
    zsock_set_sndtimeo(pipe, pipe_timeout_ms);
}

static bool instruct_monitor(zactor_t *monitor) {
    if (zstr_sendx(monitor, "LISTEN", monitor_accepted, monitor_disconnected, nullptr) != 0) {
        LOG("error connecting [%d]\n", zmq_errno());
        return false;
    }
    if (zstr_send(monitor, "START") != 0) {
        LOG("error starting MONITORING\n");
        return false;
    }
    zsock_wait(monitor);
    return true;
}

static bool register_monitor(Client *client) {
    zmq_pollitem_t &item = client->cl_monitor_item;
    item.socket = zactor_resolve(client->cl_monitor);
    if (item.socket == nullptr) {
        LOG("error starting MONITORING zactor_resolve\n");
        return false;
    }
    item.events = ZMQ_POLLIN;
    if (zloop_poller(client->cl_server->loop, &item, client->cl_server->session_handlers.monitor, client) == -1) {
        LOG("fail in register poller for monitor\n");
        item.socket = nullptr;
        return false;
    }
    zloop_poller_set_tolerant(client->cl_server->loop, &item);
    LOG("MONITOR\n");
    return true;
}

static void destroy_monitor(Client *client) {
    const StopSignalsHeld held;
    zsock_set_linger(client->cl_monitor, pipe_linger_ms);
    zactor_destroy(&client->cl_monitor);
}

void client_start_monitor(Client *client) {
    const StopSignalsHeld held;
    if (actor_can_start(client)) client->cl_monitor = zactor_new(zmonitor, client->cl_cmds);
    if (client->cl_monitor == nullptr) {
        LOG("error creating monitor port\n");
        return;
    }
    set_pipe_options(client->cl_monitor);
    if (instruct_monitor(client->cl_monitor) && register_monitor(client)) return;
    destroy_monitor(client);
    g_usleep(pause_after_teardown_us);
}

void client_stop_monitor(Client *client) {
    zmq_pollitem_t &item = client->cl_monitor_item;
    if (item.socket != nullptr) {
        LOG("free cl_monitor poller\n");
        if (client->cl_server != nullptr && client->cl_server->loop != nullptr) {
            zloop_poller_end(client->cl_server->loop, &item);
        }
        item.socket = nullptr;
    }
    if (client->cl_monitor == nullptr) return;
    LOG("free cl_monitor\n");
    destroy_monitor(client);
}
