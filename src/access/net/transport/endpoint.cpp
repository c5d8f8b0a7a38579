#include "net/transport/endpoint.h"

#include <glib.h>

static constexpr const char *all_interfaces = "*";
static constexpr const char *loopback_address = "127.0.0.1";

const char *bind_address() {
    const char *address = g_getenv("ZMQ_ACCESS_IP");
    return address != nullptr && *address != '\0' ? address : all_interfaces;
}

bool bind_address_is_loopback() { return g_str_equal(bind_address(), loopback_address); }

int endpoint_bind(zsock_t *socket, const char *address, int32_t port, PortKind kind) {
    const int bound = zsock_bind(socket, "tcp://%s:%d", address, port);
    if (bound == port) connection_table_open_port(port, kind);  // else it is somebody's, perhaps another session's
    return bound;
}

void endpoint_destroy(zsock_t **socket, int linger_ms) {
    g_autofree char *bound = zsock_last_endpoint(*socket);
    const char *port = bound != nullptr ? strrchr(bound, ':') : nullptr;
    zsock_set_linger(*socket, linger_ms);
    zsock_destroy(socket);
    if (port != nullptr) connection_table_close_port(static_cast<int>(strtol(port + 1, nullptr, 10)));
}
