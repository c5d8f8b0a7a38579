#include "net/sessions/session.h"

#include <cassert>

#include <czmq.h>

#include "common/log.h"
#include "net/records/client.h"
#include "net/records/server.h"
#include "net/sessions/monitor.h"
#include "net/sessions/ports.h"
#include "net/sessions/room.h"
#include "net/transport/endpoint.h"
#include "net/transport/limits.h"

static constexpr int commands_closing_linger_ms = 50;  // the answer to a log-out must still get out
static constexpr int events_closing_linger_ms = 0;

static constexpr int closing_port_tries = 100;
static constexpr gulong closing_port_pause_us = 500;

static constexpr SocketOption command_options[] = {
    {zsock_set_maxmsgsize,          max_message_bytes    },
    {zsock_set_linger,              150                  }, // ms; never counts, each close sets its own
    {zsock_set_tcp_keepalive,       1                    },
    {zsock_set_tcp_keepalive_idle,  keepalive_idle_s     },
    {zsock_set_tcp_keepalive_cnt,   keepalive_probes     },
    {zsock_set_tcp_keepalive_intvl, keepalive_interval_s },
    {zsock_set_sndtimeo,            1500                 }, // ms
    {zsock_set_handshake_ivl,       no_handshake_limit_ms},
    {zsock_set_reconnect_ivl,       reconnect_ms         },
    {zsock_set_reconnect_ivl_max,   reconnect_longest_ms },
};

static constexpr SocketOption heartbeat_options[] = {
    {zsock_set_heartbeat_ivl,     1000 }, // ms
    {zsock_set_heartbeat_timeout, 20000}, // ms
    {zsock_set_heartbeat_ttl,     20000}, // ms
};

static constexpr SocketOption event_options[] = {
    {zsock_set_linger,              0                    }, // ms; the close sets its own
    {zsock_set_tcp_keepalive,       1                    },
    {zsock_set_tcp_keepalive_idle,  keepalive_idle_s     },
    {zsock_set_tcp_keepalive_cnt,   keepalive_probes     },
    {zsock_set_tcp_keepalive_intvl, keepalive_interval_s },
    {zsock_set_sndtimeo,            600                  }, // ms
    {zsock_set_handshake_ivl,       no_handshake_limit_ms},
    {zsock_set_reconnect_ivl,       reconnect_ms         },
    {zsock_set_reconnect_ivl_max,   reconnect_longest_ms },
};

struct SocketReading {
    const char *label;
    int (*get)(void *socket);
};

static constexpr SocketReading command_readings[] = {
    {"tcp_keepalive :",           zsock_tcp_keepalive      },
    {"tcp_keepalive_idle :",      zsock_tcp_keepalive_idle },
    {"tcp_keepalive_cnt :",       zsock_tcp_keepalive_cnt  },
    {"tcp_keepalive_intvl :",     zsock_tcp_keepalive_intvl},
    {"reconnect_ivl :",           zsock_reconnect_ivl      },
    {"zsock_reconnect_ivl_max :", zsock_reconnect_ivl_max  },
};

static constexpr SocketReading heartbeat_readings[] = {
    {"cmd HEARTBEAT: ",         zsock_heartbeat_ivl    },
    {"cmd HEARTBEAT TIMEOUT: ", zsock_heartbeat_timeout},
    {"cmd HEARTBEAT TTL: ",     zsock_heartbeat_ttl    },
};

static void log_readings(zsock_t *socket, std::span<const SocketReading> readings) {
    for (const SocketReading &reading : readings) LOG("%s%d\n", reading.label, reading.get(socket));
}

static bool wants_monitor(const Client *client, const SessionRequest &want) {
    return want.monitor != 0 && !is_localhost(client);
}

// NULL when the process has too little left for one.
static zsock_t *new_socket(int type) { return limits_allow_socket() ? zsock_new(type) : nullptr; }

static void set_heartbeat(zsock_t *socket) {
    LOG("configure cmd HEARTBEAT\n");
    set_options(socket, heartbeat_options);
    log_readings(socket, heartbeat_readings);
}

// A port that is one's own may still be closing in the background.
static int bind_session_socket(const Client *client, zsock_t *socket, const char *address, int32_t port,
                               PortKind kind) {
    int bound = endpoint_bind(socket, address, port, kind);
    for (int tries = 0; bound != port && is_localhost(client) && tries < closing_port_tries; ++tries) {
        g_usleep(closing_port_pause_us);
        bound = endpoint_bind(socket, address, port, kind);
    }
    return bound;
}

static int open_command_socket(Client *client, const SessionRequest &want, const char *address, int32_t port) {
    if (session_room_left(client->cl_server, one_session)) client->cl_cmds = new_socket(ZMQ_REP);
    if (client->cl_cmds == nullptr) {
        LOG("zsocket_new (tcp://*:%d)\n", port);
        return -1;
    }
    set_options(client->cl_cmds, command_options);
    log_readings(client->cl_cmds, command_readings);
    if (wants_monitor(client, want)) set_heartbeat(client->cl_cmds);

    const int bound = bind_session_socket(client, client->cl_cmds, address, port, PortKind::command);
    LOG("%s: private cmd port on (%s) %d %d\n", client->cl_id, address, port, bound);
    if (bound != port) {
        LOG("error bind on port (tcp://*:%d)\n", port);
        return -1;
    }
    return 0;
}

static int open_event_socket(Client *client, const char *address, int32_t port) {
    LOG("[AUTH] events=%d\n", port);
    client->cl_events = new_socket(ZMQ_PUB);
    if (client->cl_events == nullptr) {
        LOG("zsocket_new(tcp://*:%d)\n", port);
        return -1;
    }
    set_options(client->cl_events, event_options);

    const int bound = bind_session_socket(client, client->cl_events, address, port, PortKind::event);
    LOG("%s: private events port on (%s) %d %d\n", client->cl_id, address, port, bound);
    if (bound != port) {
        LOG("error bind on port (tcp://*:%d)\n", port);
        return -1;
    }
    return 0;
}

static void watch_connections(Client *client, const SessionRequest &want) {
    if (wants_monitor(client, want)) {
        LOG("try to enable MONITORING\n");
        client_start_monitor(client);
    } else {
        LOG("monitor not done because requested in this way: %d '%s'\n", want.monitor, client->cl_id);
    }
}

static int register_command_socket(Client *client) {
    zmq_pollitem_t &item = client->cl_cmds_item;
    item.socket = zsock_resolve(client->cl_cmds);
    if (item.socket == nullptr) {
        LOG("error in zsock_resolve [%d]\n", zmq_errno());
        return -1;
    }
    item.events = ZMQ_POLLIN;
    if (zloop_poller(client->cl_server->loop, &item, client->cl_server->session_handlers.command, client) == -1) {
        LOG("error registering poller\n");
        item.socket = nullptr;
        return -1;
    }
    zloop_poller_set_tolerant(client->cl_server->loop, &item);
    return 0;
}

static void record_session(Client *client, const SessionRequest &want, SessionPorts ports) {
    client->cl_cmd_port = ports.command;
    client->cl_event_port = ports.event;
    client->discard_my_feedback = want.discard_my_feedback != 0;
    client->hide_secure_info = want.hide_secure_info != 0;
    client->no_lock = want.no_lock != 0;
    LOG("ZMQ socket created and set discard to: %p discard_my_feedback:%d hide_secure:%d no_lock:%d\n",
        static_cast<void *>(client), client->discard_my_feedback, client->hide_secure_info, client->no_lock);
}

int session_open(Client *client, const SessionRequest &want) {
    assert(!has_session(client) && client->cl_server->session_handlers.command != nullptr);
    client->cl_destroy = 1;  // the caller clears it once the session stands
    const SessionPorts ports = take_ports(client);
    const char *address = bind_address();
    if (open_command_socket(client, want, address, ports.command) != 0) return -1;
    if (open_event_socket(client, address, ports.event) != 0) return -1;
    watch_connections(client, want);  // a session without a monitor is still a session
    if (register_command_socket(client) != 0) return -1;
    record_session(client, want, ports);
    client_leave_visitors(client);
    client->cl_server->sessions_opened += 1;
    return 0;
}

static void close_command_socket(Client *client) {
    if (client->cl_cmds_item.socket != nullptr) {
        LOG("free cl_cmds poller\n");
        if (client->cl_server != nullptr && client->cl_server->loop != nullptr) {
            zloop_poller_end(client->cl_server->loop, &client->cl_cmds_item);
        } else {
            LOG("loop unknown\n");
        }
        client->cl_cmds_item.socket = nullptr;
    }
    if (client->cl_cmds != nullptr) {
        LOG("free cl_cmds\n");
        endpoint_destroy(&client->cl_cmds, commands_closing_linger_ms);
    }
}

static void close_event_socket(Client *client) {
    if (client->cl_events == nullptr) return;
    LOG("free cl_events\n");
    endpoint_destroy(&client->cl_events, events_closing_linger_ms);
}

void session_close(Client *client) {
    client_stop_monitor(client);  // before the socket that it watches
    close_command_socket(client);
    close_event_socket(client);
}
