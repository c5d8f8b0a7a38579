/* session.h - the private command and event sockets of one logged-in client, and the watch over their connections.
 * Network thread only; nothing is locked. */
#pragma once

#include <cstdint>

struct Client;

/* What a login asked for; non-zero means yes. */
struct SessionRequest {
    int32_t monitor;
    int32_t discard_my_feedback;
    int32_t hide_secure_info;
    int32_t no_lock;
};

/* Opens a session for a client that has no session. Returns 0, or -1 with the reason in the log. It sets cl_destroy to
 * 1, and what follows is the caller's: to clear it when a session was opened, or else to free the record after the
 * answer; until then the record keeps what was opened. Its two ports are spent either way. May block as long as the
 * start of a monitor does. */
int session_open(Client *client, const SessionRequest &want);

/* Closes the session, or as much of one as has been opened; the record keeps its ports. An answer that has been sent
 * still gets out. With a monitor it may block for 600 ms. */
void session_close(Client *client);
