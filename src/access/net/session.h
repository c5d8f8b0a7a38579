/* session.h - the private command and event sockets of one logged-in client.
 * Network thread only, inside reactor callbacks; nothing is locked. */
#ifndef ACCESS_NET_SESSION_H
#define ACCESS_NET_SESSION_H

#include <cstddef>
#include <cstdint>

#include <glib.h>

struct AccessServer;
struct Client;

struct SessionCount {
    size_t sockets;  /* of ZeroMQ */
    size_t sessions; /* whose connections are still to come */
};

/* A monitor of a session that is there: its pipe, and the one between it and the socket that it watches, two ends each.
 */
constexpr SessionCount one_monitor = {.sockets = 4, .sessions = 0};

/* What a login asked for; non-zero means yes. */
struct SessionRequest {
    int32_t monitor;
    int32_t discard_my_feedback;
    int32_t hide_secure_info;
    int32_t no_lock;
};

struct SessionPorts {
    int32_t command;
    int32_t event;
};

/* Opens a session for `client`, which has none. 0, or -1 with the reason in the log; then the record is marked
 * (cl_destroy 1), keeps what was opened so far, and is the caller's to free after the answer. On success the mark is
 * set as well, and the caller's to clear. Two ports are spent either way. May block as long as the start of a
 * monitor does. */
int session_open(Client *client, const SessionRequest &want);

/* The process may have that many more beside its own sessions, with the descriptors that they and their connections
 * need. Strangers' connections are not counted: they give way. */
bool session_room_left(const AccessServer *server, SessionCount further);

/* "(a{sv})" with one entry, "ports"; floating: the caller sinks it or hands it on. */
GVariant *session_login_reply(SessionPorts ports);

#endif
