/* A monitor is a connection's accept and close, not a client's: whatever opens a TCP connection to the command port
 * counts.
 *
 * Its start is the one moment at which a signal is not survived: an actor that is told of the interrupt before it has
 * its socket aborts the process. SIGINT and SIGTERM wait until it is over. */
#include "net/monitor.h"

#include "common/log.h"
#include "common/signals.h"
#include "net/audio.h"
#include "net/authentication.h"
#include "net/client.h"
#include "net/resources.h"
#include "net/server.h"
#include "net/session.h"

static constexpr int pipe_linger_ms = 0;
static constexpr int pipe_timeout_ms = 600;
static constexpr gulong pause_after_teardown_us = 30;
static constexpr const char *accepted = "ACCEPTED";
static constexpr const char *disconnected = "DISCONNECTED";

// CZMQ aborts in the start of an actor when it has been interrupted or lacks descriptors, and waits for ever for a
// thread.
static bool actor_can_start(const Client *client) {
    return zsys_interrupted == 0 && session_room_left(client->cl_server, one_monitor) && resources_for_monitor();
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
    if (zstr_sendx(monitor, "LISTEN", accepted, disconnected, nullptr) != 0) {
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
    if (zloop_poller(client->cl_server->loop, &item, client_monitor_event, client) == -1) {
        LOG("fail in register poller for monitor\n");
        item.socket = nullptr;
        return false;
    }
    zloop_poller_set_tolerant(client->cl_server->loop, &item);
    LOG("MONITOR\n");
    return true;
}

static void tear_down(Client *client) {
    zsock_set_linger(client->cl_monitor, pipe_linger_ms);
    zactor_destroy(&client->cl_monitor);
    g_usleep(pause_after_teardown_us);
}

void client_start_monitor(Client *client) {
    const StopSignalsHeld held;
    if (actor_can_start(client)) client->cl_monitor = zactor_new(zmonitor, client->cl_cmds);
    if (client->cl_monitor == nullptr) {
        LOG("error creating monitor port\n");
        return;
    }
    set_pipe_options(client->cl_monitor);
    if (!instruct_monitor(client->cl_monitor) || !register_monitor(client)) tear_down(client);
}

static int log_off(Client *client) {
    LOG("no other command connection opened, so auto-logoff (%s)\n", client->cl_id);
    GVariant *reply = client_authenticate(client, {});
    if (reply != nullptr) g_variant_unref(g_variant_ref_sink(reply));
    LOG("free client (%u)\n", client->cl_destroy);
    client_free(client, client_free_known);
    return 0;
}

static int connection_accepted(Client *client) {
    LOG("%s socket\n", accepted);
    client->cl_connections += 1;
    if (client->cl_connections == 1) {
        LOG("first same connection: (%s) %u\n", client->cl_id, client->cl_connections);
        audio_client_authenticated(client);
    } else {
        LOG("reopen same connection: (%s) %u\n", client->cl_id, client->cl_connections);
    }
    return 0;
}

static int connection_closed(Client *client) {
    LOG("%s socket\n", disconnected);
    if (client->cl_connections > 0) client->cl_connections -= 1;
    if (client->cl_connections == 0) return log_off(client);
    LOG("client deconnection but it is not the last one: (%s) %u\n", client->cl_id, client->cl_connections);
    return 0;
}

int client_monitor_event(zloop_t *loop, zmq_pollitem_t *item, void *argument) {
    auto *client = static_cast<Client *>(argument);
    bool complete = false;
    if (client == nullptr) LOG_FAILED("client has to be not NULL");
    else if (client->cl_monitor == nullptr) LOG_FAILED("client monitor has to be not NULL");
    else if (loop == nullptr) LOG_FAILED("loop has to be not NULL");
    else if (item == nullptr) LOG_FAILED("poller has to be not NULL");
    else if (item->socket == nullptr) LOG_FAILED("socket has to be not NULL");
    else complete = true;
    if (!complete) {
        LOG("error in client_monitor_event\n");
        return 0;
    }

    LOG("client monitor event %d\n", client->cl_cmd_port);
    zmsg_t *message = zmsg_recv(client->cl_monitor);
    if (message == nullptr) return 0;
    char *name = zmsg_popstr(message);
    zmsg_destroy(&message);
    if (name == nullptr) {
        LOG("no event!!!\n");
        return 0;
    }

    const bool is_accepted = streq(name, accepted), is_disconnected = streq(name, disconnected);
    if (!is_accepted && !is_disconnected) LOG("unmanaged '%s' socket event\n", name);
    zstr_free(&name);
    if (is_accepted) return connection_accepted(client);
    if (is_disconnected) return connection_closed(client);
    return 0;
}
