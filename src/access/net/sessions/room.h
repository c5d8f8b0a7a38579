/* room.h - how many more sessions fit into the process. Network thread only. */
#pragma once

#include <cstddef>

struct AccessServer;

struct SessionCount {
    size_t sockets;  /* of ZeroMQ */
    size_t sessions; /* whose connections are still to come */
};

constexpr SessionCount one_session = {.sockets = 2, .sessions = 1};

/* Of a session that is there: its pipe, and the one between it and the socket that it watches, two ends each. */
constexpr SessionCount one_monitor = {.sockets = 4, .sessions = 0};

/* The process may have that many more beside its own sessions, with the descriptors that they and their connections
 * need. Strangers' connections are not counted: they give way. */
bool session_room_left(const AccessServer *server, SessionCount further);
