/* room.h - how many more sessions fit into the process. Network thread only. */
#pragma once

#include <cstddef>

struct AccessServer;

struct SessionCount {
    size_t sockets;  /* of ZeroMQ */
    size_t sessions; /* each needs descriptors to listen at, and for connections that are still to come */
};

constexpr SessionCount one_session = {.sockets = 2, .sessions = 1};

/* The monitor of an open session: two pairs of sockets, its pipe and the pair between it and the socket it watches. */
constexpr SessionCount one_monitor = {.sockets = 4, .sessions = 0};

/* Whether that many more fit beside the open sessions, with the descriptors that these and their connections need. All
 * connections are counted, whoever made them. */
bool session_room_left(const AccessServer *server, SessionCount further);
