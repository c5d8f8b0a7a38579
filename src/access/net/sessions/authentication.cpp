/* Whatever comes in gets exactly one answer: a REP socket that has received and does not send is deaf from then on. */
#include "net/sessions/authentication.h"

#include <cstring>

#include "common/log.h"
#include "net/device/static_discovery.h"
#include "net/notification/notification.h"
#include "net/records/client.h"
#include "net/records/server.h"
#include "net/sessions/connections.h"
#include "net/sessions/login.h"
#include "net/sessions/release.h"
#include "net/transport/exchange.h"

struct LoginExchange : Exchange {
    AccessServer *server;
    const char *id = nullptr;  // the handle's
    Client *client = nullptr;  // the table's
};

static bool receive_request(LoginExchange &login) {
    if (!exchange_receive(login)) return false;
    LOG("[AUTH] > received %zd bytes\n", static_cast<ssize_t>(login.received_bytes));
    if (login.server != nullptr) ensure_static_discovery(login.server);
    proto_set_discovery(login.codec.get(), static_discovery_text());
    return true;
}

static bool take_client_id(LoginExchange &login) {
    login.id = proto_id(login.codec.get());
    return login.id != nullptr && strlen(login.id) <= longest_id;
}

// A record that was marked while nobody freed it is over; its id begins anew.
static Client *find_client(const LoginExchange &login) {
    settle_connections(login.server, login.id);
    Client *known = client_lookup(login.server, login.id);
    if (known == nullptr || known->cl_destroy != 1) return known;
    LOG("login known client that is marked to be removed before!!!!, so free client before\n");
    client_free(known, client_free_known);
    return nullptr;
}

static void complete_known_client(LoginExchange &login) {
    LOG("login known client: %s\n", login.id);
    if (login.client->cl_server == nullptr) {
        LOG("set srv\n");
        login.client->cl_server = login.server;
    }
    if (login.client->cl_id == nullptr) {
        LOG("set id\n");
        login.client->cl_id = g_strdup(login.id);
    }
}

static bool add_client(LoginExchange &login) {
    login.client = client_new();
    if (login.client == nullptr) return false;
    login.client->cl_server = login.server;
    login.client->cl_id = g_strdup(login.id);
    client_insert(login.server, login.client);
    LOG("[AUTH] added non discovered client\n");
    return true;
}

static bool find_or_add_client(LoginExchange &login) {
    login.client = find_client(login);
    if (login.client == nullptr) return add_client(login);
    complete_known_client(login);
    return true;
}

static Frame process(LoginExchange &login) {
    login.client->cl_destroy = 0;
    LOG("[AUTH] > client: %p,id=%s\n", static_cast<void *>(login.client), login.id);
    proto_set_private(login.codec.get(), login.client);
    proto_set_cb_action(login.codec.get(), server_auth_callback);
    proto_set_getchange(login.codec.get(), client_getchange_callback);
    return exchange_process(login);
}

static bool process_and_answer(LoginExchange &login) {
    const Frame answer = process(login);
    if (answer.bytes == nullptr) {
        LOG("problem in proto_encode\n");
        return false;
    }
    if (!exchange_answer(login, answer, 0)) {
        login.codec.reset();
        LOG("error zmq_msg_send\n");
        return false;
    }
    LOG("[AUTH] > zmq_msg_send\n");
    return true;
}

static void answer_failure(LoginExchange &login) {
    LOG("[AUTH] error encoding...\n");
    send_empty_answer(login.socket);
}

static void free_if_marked(Client *client) {
    if (client == nullptr || client->cl_destroy != 1) return;
    LOG("free client\n");
    client_free(client, client_free_known);
}

int server_auth(zloop_t *, zmq_pollitem_t *item, void *server) {
    auto *srv = static_cast<AccessServer *>(server);
    LoginExchange login{
        {.socket = item->socket, .port = srv->auth_port},
        srv
    };
    bool answered = false;
    LOG("[AUTH] >\n");
    if (!receive_request(login)) LOG_FAILED("zmq_msg_recv");
    else if (!exchange_decode(login)) LOG_FAILED("error data not parsable");
    else if (!take_client_id(login)) LOG_FAILED("invalid client id");
    else if (!find_or_add_client(login)) LOG_FAILED("client_new");
    else answered = process_and_answer(login);

    if (!answered) answer_failure(login);
    login.codec.reset();           // it points at the record
    free_if_marked(login.client);  // only now: the answer has left
    return 0;
}
