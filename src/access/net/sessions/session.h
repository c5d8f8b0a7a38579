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

/* Opens a session for `client`, which has none. 0, or -1 with the reason in the log; then the record is marked
 * (cl_destroy 1), keeps what was opened so far, and is the caller's to free after the answer. On success the mark is
 * set as well, and the caller's to clear. Two ports are spent either way. May block as long as the start of a
 * monitor does. */
int session_open(Client *client, const SessionRequest &want);

/* Closes what there is of a session, and the record has none afterwards. An answer that has been sent still gets out.
 * With a monitor it may block for 600 ms. */
void session_close(Client *client);
