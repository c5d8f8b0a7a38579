#include "net/transport/endpoint.h"

#include <glib.h>

static constexpr const char *all_interfaces = "*";
static constexpr const char *loopback_address = "127.0.0.1";

const char *bind_address() {
    const char *address = g_getenv("ZMQ_ACCESS_IP");
    return address != nullptr && *address != '\0' ? address : all_interfaces;
}

bool bind_address_is_loopback() { return g_str_equal(bind_address(), loopback_address); }

int endpoint_bind(zsock_t *socket, const char *address, int32_t port) {
    return zsock_bind(socket, "tcp://%s:%d", address, port);
}
