/* A session costs two sockets, bound to two ports that are never given back, so that no client ever meets another's
 * successor on a port that it remembers until the whole range has been used. */
#include "net/session.h"

#include <cassert>

#include "common/log.h"
#include "net/client.h"
#include "net/command_channel.h"
#include "net/endpoint.h"
#include "net/monitor.h"
#include "net/resources.h"
#include "net/server.h"

static constexpr int32_t cmd_port_last = 62998, cmd_port_again = 62002;
static constexpr int32_t event_port_last = 63998, event_port_again = 63002;
static constexpr SessionPorts localhost_ports = {.command = 62000, .event = 63000};
static_assert(cmd_port_last < event_port_first, "a command port must never be another client's event port");
static_assert(localhost_ports.command < cmd_port_first && localhost_ports.event < event_port_first);
static_assert(localhost_ports.event > cmd_port_last);

static constexpr SocketOption command_options[] = {
    {zsock_set_maxmsgsize,          max_message_bytes},
    {zsock_set_linger,              150              }, // ms
    {zsock_set_tcp_keepalive,       1                },
    {zsock_set_tcp_keepalive_idle,  20               }, // s
    {zsock_set_tcp_keepalive_cnt,   2                },
    {zsock_set_tcp_keepalive_intvl, 5                }, // s
    {zsock_set_sndtimeo,            1500             }, // ms
    {zsock_set_handshake_ivl,       0                }, // ms; no limit
    {zsock_set_reconnect_ivl,       200              }, // ms
    {zsock_set_reconnect_ivl_max,   1000             }, // ms
};

static constexpr SocketOption heartbeat_options[] = {
    {zsock_set_heartbeat_ivl,     1000 }, // ms
    {zsock_set_heartbeat_timeout, 20000}, // ms
    {zsock_set_heartbeat_ttl,     20000}, // ms
};

static constexpr SocketOption event_options[] = {
    {zsock_set_linger,              0   }, // ms
    {zsock_set_tcp_keepalive,       1   },
    {zsock_set_tcp_keepalive_idle,  20  }, // s
    {zsock_set_tcp_keepalive_cnt,   2   },
    {zsock_set_tcp_keepalive_intvl, 5   }, // s
    {zsock_set_sndtimeo,            600 }, // ms
    {zsock_set_handshake_ivl,       0   }, // ms; no limit
    {zsock_set_reconnect_ivl,       200 }, // ms
    {zsock_set_reconnect_ivl_max,   1000}, // ms
};

static constexpr SessionCount one_session = {.sockets = 2, .sessions = 1};

// A socket has one descriptor, and a session two more to listen at. A session that is granted is of no use without its
// connections, which come later and are three: to the authentication, the command and the event socket.
static constexpr size_t descriptors_beside_sockets = 2 + 3;
static constexpr size_t descriptors_of_service = 45;  // without any session, with those that are kept from connections

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

static bool is_localhost(const Client *client) { return g_str_equal(client->cl_id, localhost_id); }

static bool wants_monitor(const Client *client, const SessionRequest &want) {
    return want.monitor != 0 && !is_localhost(client);
}

static int32_t take_cmd_port(AccessServer *server) {
    const int32_t port = server->next_cmd_port++;
    if (server->next_cmd_port > cmd_port_last) {
        LOG("rotate cmd port\n");
        server->next_cmd_port = cmd_port_again;
    }
    return port;
}

static int32_t take_event_port(AccessServer *server) {
    const int32_t port = server->next_event_port++;
    if (server->next_event_port > event_port_last) {
        LOG("rotate event port\n");
        server->next_event_port = event_port_again;
    }
    return port;
}

static SessionPorts take_ports(const Client *client) {
    SessionPorts ports = localhost_ports;
    if (!is_localhost(client)) {
        ports.command = take_cmd_port(client->cl_server);
        ports.event = take_event_port(client->cl_server);
    }
    LOG("[AUTH] cmd=%d\n", ports.command);
    return ports;
}

static SessionCount count_sessions(const AccessServer *server) {
    SessionCount count = {.sockets = 1, .sessions = 0};  // the authentication socket
    GHashTableIter clients;
    void *value = nullptr;
    g_hash_table_iter_init(&clients, server->clients);
    while (g_hash_table_iter_next(&clients, nullptr, &value)) {
        const auto *client = static_cast<const Client *>(value);
        if (client->cl_cmds == nullptr) continue;
        count.sessions += 1;
        count.sockets += 1;
        if (client->cl_events != nullptr) count.sockets += 1;
        if (client->cl_monitor != nullptr) count.sockets += one_monitor.sockets;
    }
    return count;
}

bool session_room_left(const AccessServer *server, SessionCount further) {
    const SessionCount count = count_sessions(server);
    const size_t sockets = count.sockets + further.sockets, sessions = count.sessions + further.sessions;
    return sockets <= resources_socket_limit() &&
           sockets + sessions * descriptors_beside_sockets + descriptors_of_service <= resources_descriptor_limit();
}

// A new socket, or none when the process has too little left for one.
static zsock_t *new_socket(int type) { return resources_for_socket() ? zsock_new(type) : nullptr; }

static void set_heartbeat(zsock_t *socket) {
    LOG("configure cmd HEARTBEAT\n");
    set_options(socket, heartbeat_options);
    log_readings(socket, heartbeat_readings);
}

static int open_command_socket(Client *client, const SessionRequest &want, const char *address, int32_t port) {
    if (session_room_left(client->cl_server, one_session)) client->cl_cmds = new_socket(ZMQ_REP);
    if (client->cl_cmds == nullptr) {
        LOG("zsocket_new (tcp://*:%d)\n", port);
        return -1;
    }
    set_options(client->cl_cmds, command_options);
    zsock_set_rcvhwm(client->cl_cmds, max_waiting_requests);
    log_readings(client->cl_cmds, command_readings);
    if (wants_monitor(client, want)) set_heartbeat(client->cl_cmds);

    const int bound = endpoint_bind(client->cl_cmds, address, port);
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

    const int bound = endpoint_bind(client->cl_events, address, port);
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
    if (zloop_poller(client->cl_server->loop, &item, client_read, client) == -1) {
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
    assert(!has_session(client));
    client->cl_destroy = 1;  // the caller clears it once the session stands
    const SessionPorts ports = take_ports(client);
    const char *address = bind_address();
    if (open_command_socket(client, want, address, ports.command) != 0) return -1;
    if (open_event_socket(client, address, ports.event) != 0) return -1;
    watch_connections(client, want);  // a session without a monitor is still a session
    if (register_command_socket(client) != 0) return -1;
    record_session(client, want, ports);
    return 0;
}

GVariant *session_login_reply(SessionPorts ports) {
    GVariant *value = g_variant_new_variant(g_variant_new("(ii)", ports.command, ports.event));
    GVariant *entry = g_variant_new_dict_entry(g_variant_new_string("ports"), value);
    GVariant *entries = g_variant_new_array(nullptr, &entry, 1);
    return g_variant_new_tuple(&entries, 1);
}
