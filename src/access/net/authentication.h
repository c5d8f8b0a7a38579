/* authentication.h - the authentication socket, and the login and log-out that any client socket can carry.
 * Network thread only, inside reactor callbacks. */
#ifndef ACCESS_NET_AUTHENTICATION_H
#define ACCESS_NET_AUTHENTICATION_H

#include <cstdint>

#include <czmq.h>
#include <glib.h>

#include <kesto/proto.h>

#include "net/session.h"

struct Client;

/* One login or, with both texts absent, log-out. The texts are borrowed; each may be absent. */
struct LoginRequest {
    const char *user_name = nullptr;
    const char *password = nullptr;
    SessionRequest session = {};
    const char *discovery = nullptr; /* the discovery text that the client saw */
};

/* Reactor handler of the authentication socket; `server` is the AccessServer. Returns 0. */
int server_auth(zloop_t *loop, zmq_pollitem_t *item, void *server);

/* The codec's action callback: client_authenticate for the handle's client. */
GVariant *server_auth_callback(Proto *handle, const char *user_name, const char *password, int32_t monitor,
                               int32_t discard_my_feedback, int32_t hide_secure_info, int32_t no_lock,
                               const char *discovery);

/* Logs the client in or out; may block for the D-Bus calls of the static discovery text and for a session's opening.
 * The floating login reply, which is the caller's; nothing for a log-out and for a refusal. A record with cl_destroy 1
 * afterwards is to be freed by the caller, after the answer. */
GVariant *client_authenticate(Client *client, const LoginRequest &request);

/* The codec's login-info callback: whether the handle's client asked for secrets to be hidden. */
void client_action_get_login_info_callback(Proto *handle, uint32_t *hide_secure_info);

#endif
