#include "net/sessions/ports.h"

#include <glib.h>

#include "common/log.h"
#include "net/records/client.h"
#include "net/records/server.h"

static int32_t take_port(const PortRange &range, int32_t *next) {
    const int32_t port = (*next)++;
    if (*next > range.last) {
        LOG("%s", range.rotated);
        *next = range.again;
    }
    return port;
}

bool is_localhost(const Client *client) { return g_str_equal(client->cl_id, localhost_id); }

SessionPorts take_ports(const Client *client) {
    SessionPorts ports = localhost_ports;
    if (!is_localhost(client)) {
        ports.command = take_port(command_ports, &client->cl_server->next_cmd_port);
        ports.event = take_port(event_ports, &client->cl_server->next_event_port);
    }
    LOG("[AUTH] cmd=%d\n", ports.command);
    return ports;
}
