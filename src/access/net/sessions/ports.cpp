#include "net/sessions/ports.h"

#include "common/log.h"
#include "net/records/client.h"
#include "net/records/server.h"

// Handed out in turn up to `last`; then the count goes on at `again`.
struct PortRange {
    int32_t first, last, again;
    const char *log; /* when the last one has been taken */
};

static constexpr PortRange command_ports = {first_ports.command, 62998, 62002, "rotate cmd port\n"};
static constexpr PortRange event_ports = {first_ports.event, 63998, 63002, "rotate event port\n"};
static constexpr SessionPorts localhost_ports = {.command = 62000, .event = 63000};

static_assert(command_ports.last < event_ports.first, "a command port must never be another client's event port");
static_assert(localhost_ports.command < command_ports.first && localhost_ports.event < event_ports.first);
static_assert(localhost_ports.event > command_ports.last);

static int32_t take_port(const PortRange &range, int32_t *next) {
    const int32_t port = (*next)++;
    if (*next > range.last) {
        LOG("%s", range.log);
        *next = range.again;
    }
    return port;
}

SessionPorts take_ports(const Client *client) {
    SessionPorts ports = localhost_ports;
    if (!is_localhost(client)) {
        ports.command = take_port(command_ports, &client->cl_server->next_cmd_port);
        ports.event = take_port(event_ports, &client->cl_server->next_event_port);
    }
    LOG("[AUTH] cmd=%d\n", ports.command);
    return ports;
}
