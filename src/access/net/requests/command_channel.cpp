#include "net/requests/command_channel.h"

#include "common/log.h"
#include "net/device/static_discovery.h"
#include "net/notification/notification.h"
#include "net/records/client.h"
#include "net/requests/data_access.h"
#include "net/requests/rights.h"
#include "net/sessions/login.h"
#include "net/sessions/release.h"
#include "net/transport/exchange.h"

static bool receive_request(Exchange &request) {
    if (!exchange_receive(request)) return false;
    proto_set_discovery(request.codec.get(), static_discovery_text());
    return true;
}

static void install_callbacks(Proto *handle, Client *client) {
    proto_set_private(handle, client);
    proto_set_cb_read(handle, data_read_callback);
    proto_set_cb_auth(handle, key_authorized);
    proto_set_cb_get_login_info(handle, client_action_get_login_info_callback);
    proto_set_cb_write(handle, data_write_callback);
    proto_set_cb_multiwrite(handle, data_multiwrite_callback);
    proto_set_cb_change(handle, client_change_callback);
    proto_set_cb_action(handle, server_auth_callback);
    proto_set_getchange(handle, client_getchange_callback);
}

static void echo_to_others(Client *client, Proto *handle) {
    if (client->cl_broadcast == 0) return;
    LOG("[%s] Broadcasting to all clients.\n", client->cl_id);
    broadcast(client->cl_server, handle, client);
}

static bool process_and_answer(Exchange &request, Client *client) {
    install_callbacks(request.codec.get(), client);
    const Frame answer = exchange_process(request);
    if (answer.bytes == nullptr) {
        LOG("problem in proto_encode\n");
        return false;
    }
    exchange_answer(request, answer, ZMQ_DONTWAIT);  // a client that is gone still has its change echoed
    echo_to_others(client, request.codec.get());
    return true;
}

static void answer_failure(const Exchange &request) {
    LOG("[CLIENT] error encoding\n");
    send_empty_answer(request.socket);
}

static void free_if_marked(Client *client) {
    if (client->cl_destroy != 1) return;
    LOG("free client because is marker as destroyble\n");
    client_free(client, client_free_known);
}

int client_read(zloop_t *, zmq_pollitem_t *item, void *argument) {
    auto *client = static_cast<Client *>(argument);
    Exchange request{.socket = item->socket, .port = client->cl_cmd_port};
    bool answered = false;
    if (!receive_request(request)) LOG_FAILED("zmq_msg_recv");
    else if (!exchange_decode(request)) LOG_FAILED("error data not parsable");
    else answered = process_and_answer(request, client);

    if (!answered) answer_failure(request);
    request.codec.reset();     // it points at the record
    client->cl_broadcast = 0;  // of this request alone, also when it could not be answered
    free_if_marked(client);    // only now: the answer has left
    return 0;
}
