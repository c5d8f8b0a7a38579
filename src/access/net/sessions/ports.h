/* ports.h - which ports sessions get. No port is given back, so that no client ever meets another's successor on a port
 * that it remembers until the whole range has been used. Network thread only. */
#pragma once

#include <cstdint>

struct AccessServer;
struct Client;

/* The ports from `first` to `last`, each in turn; after the last one it goes on `again`. */
struct PortRange {
    int32_t first, last, again;
    const char *rotated; /* what the log says when the last one is taken */
};

constexpr PortRange command_ports = {.first = 62001, .last = 62998, .again = 62002, .rotated = "rotate cmd port\n"};
constexpr PortRange event_ports = {.first = 63001, .last = 63998, .again = 63002, .rotated = "rotate event port\n"};

struct SessionPorts {
    int32_t command;
    int32_t event;
};

/* The ports of the id "@localhost", which lie outside of both ranges. */
constexpr SessionPorts localhost_ports = {.command = 62000, .event = 63000};

static_assert(command_ports.last < event_ports.first, "a command port must never be another client's event port");
static_assert(localhost_ports.command < command_ports.first && localhost_ports.event < event_ports.first);
static_assert(localhost_ports.event > command_ports.last);

bool is_localhost(const Client *client);

/* The ports of the client's next session; they are spent, whatever becomes of it. */
SessionPorts take_ports(const Client *client);
