#include "net/sessions/auth_socket.h"

#include "common/log.h"
#include "net/records/server.h"
#include "net/transport/endpoint.h"
#include "net/transport/limits.h"

static constexpr int closing_linger_ms = 0;

static constexpr SocketOption auth_options[] = {
    {zsock_set_linger,              1000                 }, // ms; never counts, the close sets its own
    {zsock_set_maxmsgsize,          max_message_bytes    },
    {zsock_set_tcp_keepalive,       1                    },
    {zsock_set_tcp_keepalive_idle,  keepalive_idle_s     },
    {zsock_set_tcp_keepalive_cnt,   keepalive_probes     },
    {zsock_set_tcp_keepalive_intvl, keepalive_interval_s },
    {zsock_set_sndtimeo,            2000                 }, // ms
    {zsock_set_handshake_ivl,       no_handshake_limit_ms},
    {zsock_set_reconnect_ivl,       reconnect_ms         },
    {zsock_set_reconnect_ivl_max,   reconnect_longest_ms },
};

bool auth_socket_create(AccessServer *server) {
    if (limits_allow_start()) server->auth = zsock_new(ZMQ_REP);
    return server->auth != nullptr;
}

bool auth_socket_bind(const AccessServer *server) {
    set_options(server->auth, auth_options);
    const int bound = endpoint_bind(server->auth, bind_address(), server->auth_port, PortKind::login);
    LOG("[NET] auth port %d %d\n", server->auth_port, bound);
    return bound == server->auth_port;
}

void auth_socket_close(AccessServer *server) {
    if (server->auth == nullptr) return;
    LOG("Stop auth destroy socket\n");
    endpoint_destroy(&server->auth, closing_linger_ms);
}
