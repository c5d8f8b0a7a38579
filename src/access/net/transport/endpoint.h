/* endpoint.h - where the service's ZeroMQ sockets are bound, and how their options are set. Network thread only. */
#pragma once

#include <cstdint>
#include <span>

#include <czmq.h>

#include "net/transport/connection_table.h"

/* ZMQ_ACCESS_IP, or "*" (all interfaces) when it is unset or empty. Valid until the environment changes. */
const char *bind_address();

/* Whether ZMQ_ACCESS_IP is exactly "127.0.0.1". */
bool bind_address_is_loopback();

/* Binds to "tcp://address:port", whose connections are counted from then on. The bound port, or -1. */
int endpoint_bind(zsock_t *socket, const char *address, int32_t port, PortKind kind);

/* Closes the socket and clears the reference; its port, if it has one, is no longer counted. */
void endpoint_destroy(zsock_t **socket, int linger_ms);

/* Milliseconds, seconds, bytes, a count or 1 for on, as the option has it. libzmq aborts the process on a value that it
 * does not take.
 */
struct SocketOption {
    void (*set)(void *socket, int value);
    int value;
};

inline void set_options(zsock_t *socket, std::span<const SocketOption> options) {
    for (const SocketOption &option : options) option.set(socket, option.value);
}

/* What all sockets of the service have in common. */
constexpr int keepalive_idle_s = 20, keepalive_probes = 2, keepalive_interval_s = 5;
constexpr int no_handshake_limit_ms = 0;
constexpr int reconnect_ms = 200, reconnect_longest_ms = 1000;
