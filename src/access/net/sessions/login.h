/* login.h - the login and the log-out, which the authentication socket and every command socket can carry.
 * Network thread only, inside reactor callbacks. */
#pragma once

#include <cstdint>

#include <glib.h>

#include <kesto/proto.h>

#include "net/sessions/session.h"

struct Client;

/* A login; with neither user name nor password, a log-out. The texts are borrowed; each may be NULL. */
struct LoginRequest {
    const char *user_name = nullptr;
    const char *password = nullptr;
    SessionRequest session = {};
    const char *discovery = nullptr; /* the discovery text that the client saw */
};

/* Logs the client in or out; may block for the D-Bus calls of the static discovery text and for a session's opening.
 * The floating login reply, "(a{sv})" with the two ports, which is the caller's; NULL for a log-out, for a refusal,
 * and with the record untouched when there is no session bus, no client or no id. A record with cl_destroy 1 afterwards
 * is to be freed by the caller, after the answer. */
GVariant *client_authenticate(Client *client, const LoginRequest &request);

/* The codec's action callback: client_authenticate for the handle's client. */
GVariant *server_auth_callback(Proto *handle, const char *user_name, const char *password, int32_t monitor,
                               int32_t discard_my_feedback, int32_t hide_secure_info, int32_t no_lock,
                               const char *discovery);

/* The codec's login-info callback: whether the handle's client asked for secrets to be hidden; 0 without a client.
 * `hide_secure_info` may be NULL. */
void client_action_get_login_info_callback(Proto *handle, uint32_t *hide_secure_info);
