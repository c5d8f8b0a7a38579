/* Who may log in, and what a login does to the record. The first user name that is tried on a record stays its only
 * one, also when the password was wrong: a session has one user, and the record's rights follow that name. */
#include "net/sessions/login.h"

#include "common/log.h"
#include "net/device/static_discovery.h"
#include "net/records/client.h"
#include "net/sessions/audio.h"
#include "net/transport/bus.h"

struct Credentials {
    const char *user_name, *password;
};

static constexpr Credentials builtin_credentials[] = {
    {"root",      "vormi"    },
    {"quillmont", "tandrivel"},
    {nullptr,     nullptr    },
};

static bool credentials_match(const LoginRequest &request) {
    if (request.user_name == nullptr || request.password == nullptr) return false;
    for (const Credentials *row = builtin_credentials; row->user_name != nullptr; ++row) {
        if (g_str_equal(row->user_name, request.user_name) && g_str_equal(row->password, request.password)) return true;
    }
    return false;
}

static GVariant *refuse(Client *client) {
    if (!has_session(client)) client->cl_destroy = 1;
    else LOG("but there is already a client connected with same client id, so I cannot remove\n");
    return nullptr;
}

static GVariant *log_out(Client *client) {
    LOG("[%s] deauthenticating... (%u)\n", client->cl_id, client->cl_connections);
    client->cl_destroy = 1;
    return nullptr;
}

// False when the record belongs to another user.
static bool take_user_name(Client *client, const char *user_name) {
    if (user_name == nullptr) return true;
    if (client->cl_username == nullptr) client->cl_username = g_strdup(user_name);
    if (g_str_equal(client->cl_username, user_name)) return true;
    LOG("more the one login on %s %s\n", client->cl_username, user_name);
    return false;
}

static bool check_credentials(const LoginRequest &request) {
    const char *user_name = log_text(request.user_name), *password = log_text(request.password);
    if (credentials_match(request)) {
        LOG("user %s, password %s OK\n", user_name, password);
        return true;
    }
    LOG("user %s, password %s not authenticated\n", user_name, password);
    LOG("Unable to authenticate with username=%s and password=%s\n", user_name, password);
    return false;
}

// A client that shows the discovery text of another device, or of this one before it changed, is refused.
static bool check_discovery(const Client *client, const char *discovery) {
    if (discovery == nullptr) {
        LOG("request login WITHOUT discovery message\n");
        return true;
    }
    LOG("request login with discovery message: %s\n", discovery);
    if (client->cl_server != nullptr) ensure_static_discovery(client->cl_server);
    const char *own = static_discovery_text();
    LOG("internal discovery message: %s\n", own);
    if (*own == '\0' || g_str_equal(discovery, own)) return true;
    LOG("not possible to login with incorrect discovery message: '%s' - '%s'\n", discovery, own);
    return false;
}

static void log_kept_flag(const Client *client, const char *flag, uint32_t recorded, int32_t requested) {
    const uint32_t wanted = requested != 0;
    if (wanted != recorded) LOG("[%s] %s stays %u, requested %u\n", client->cl_id, flag, recorded, wanted);
}

static void reuse_session(const Client *client, const SessionRequest &want) {
    LOG("[%s] alredy exist a connection, reuse it (%u)\n", client->cl_id, client->cl_connections);
    log_kept_flag(client, "discard_my_feedback", client->discard_my_feedback, want.discard_my_feedback);
    log_kept_flag(client, "hide_secure_info", client->hide_secure_info, want.hide_secure_info);
    log_kept_flag(client, "no_lock", client->no_lock, want.no_lock);
}

static bool open_or_reuse_session(Client *client, const SessionRequest &want) {
    if (!has_session(client)) return session_open(client, want) == 0;
    reuse_session(client, want);
    return true;
}

static void log_attempt(const Client *client, const LoginRequest &request) {
    LOG("[%s](%d) authenticating username=[%s], password=[%s], monitor=[%d] discard_my_feedback=[%d], "
        "hide_secure_info=[%d], no_lock=[%d], ...\n",
        client->cl_id, client->cl_destroy, log_text(request.user_name), log_text(request.password),
        request.session.monitor, request.session.discard_my_feedback, request.session.hide_secure_info,
        request.session.no_lock);
}

static bool can_authenticate(const Client *client) {
    if (bus_connection == nullptr) LOG("dbus connection missing\n");
    else if (client == nullptr) LOG("client is null\n");
    else if (client->cl_id == nullptr) LOG("client->cl_id is null\n");
    else return true;
    return false;
}

// "(a{sv})" with one entry, "ports"; floating.
static GVariant *login_reply(const Client *client) {
    GVariant *ports = g_variant_new("(ii)", client->cl_cmd_port, client->cl_event_port);
    GVariant *entry = g_variant_new_dict_entry(g_variant_new_string("ports"), g_variant_new_variant(ports));
    GVariant *entries = g_variant_new_array(nullptr, &entry, 1);
    return g_variant_new_tuple(&entries, 1);
}

static GVariant *log_in(Client *client, const LoginRequest &request) {
    log_attempt(client, request);
    if (!take_user_name(client, request.user_name)) return nullptr;
    if (!check_credentials(request)) return refuse(client);
    if (!check_discovery(client, request.discovery)) return refuse(client);
    if (!open_or_reuse_session(client, request.session)) return nullptr;

    client->cl_destroy = 0;
    if (client->cl_monitor == nullptr) audio_client_authenticated(client);  // else at its first connection
    GVariant *reply = login_reply(client);
    LOG("[%s] authenticating username=[%s], password=[%s] done\n", client->cl_id, request.user_name, request.password);
    return reply;
}

GVariant *client_authenticate(Client *client, const LoginRequest &request) {
    if (!can_authenticate(client)) return nullptr;
    if (request.user_name == nullptr && request.password == nullptr) return log_out(client);
    return log_in(client, request);
}

GVariant *server_auth_callback(Proto *handle, const char *user_name, const char *password, int32_t monitor,
                               int32_t discard_my_feedback, int32_t hide_secure_info, int32_t no_lock,
                               const char *discovery) {
    LOG("server_auth_callback: %s %s %d %d %d %d %s\n", log_text(user_name), log_text(password), monitor,
        discard_my_feedback, hide_secure_info, no_lock, discovery != nullptr ? discovery : "NULL");
    if (handle == nullptr) {
        LOG("NULL pointer p\n");
        return nullptr;
    }
    auto *client = static_cast<Client *>(proto_get_private(handle));
    if (client == nullptr) return nullptr;
    const SessionRequest session = {monitor, discard_my_feedback, hide_secure_info, no_lock};
    return client_authenticate(client, {user_name, password, session, discovery});
}

void client_action_get_login_info_callback(Proto *handle, uint32_t *hide_secure_info) {
    if (hide_secure_info != nullptr) *hide_secure_info = 0;
    const Client *client = handle != nullptr ? static_cast<Client *>(proto_get_private(handle)) : nullptr;
    if (client == nullptr) {
        LOG("missing client from client_action_get_login_info_callback\n");
        return;
    }
    if (hide_secure_info != nullptr) *hide_secure_info = client->hide_secure_info;
}
