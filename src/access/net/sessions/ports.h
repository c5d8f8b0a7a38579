/* ports.h - which ports sessions get. A port is handed out again only after the whole range has been, so that a client
 * that remembers an old port does not meet another client's session there. Network thread only. */
#pragma once

#include <cstdint>

struct Client;

struct SessionPorts {
    int32_t command;
    int32_t event;
};

/* Of the first session of a server: where its two counters start. */
constexpr SessionPorts first_ports = {.command = 62001, .event = 63001};

/* The ports of the client's next session; they are spent, whatever becomes of it. A session of "@localhost" always has
 * the same two, which are in no range. The record must have its cl_server and cl_id. */
SessionPorts take_ports(const Client *client);
