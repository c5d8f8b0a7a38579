#include "clients.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

static constexpr int auth_port = 60000, discovery_port = 8004;
static constexpr int patience_ms = 20000;  // a program under observation may be fifty times slower
static constexpr int sockets_max = 4096;
static constexpr int pairs_of_a_multi_write = 8;
static constexpr uint32_t this_key_alone = 0x2000, operation_read = 2;
static constexpr const char *user_name = "quillmont", *password = "tandrivel";
static constexpr const char *key = "/Device/Audio/Presets/Live/OutputProcess/Channels/Channel-3/Gain", *value = "-6.5";
static constexpr char separator = '\x1c';

// A 2048-bit key whose private half was thrown away.
static constexpr const char *public_key =
    "-----BEGIN PUBLIC KEY-----\n"
    "MIIBIjANBgkqhkiG9w0BAQEFAAOCAQ8AMIIBCgKCAQEAwtZgpMJtCZnz4p+v35AV\n"
    "MB0QhNmLbpC3gQXpR/rug/+zna36EScKnniKw3LY4w7c+rQcZo9CDG0M684Qp284\n"
    "cslmGFvCPs50Tj1SHW4hu/sY4AjKAlfR9OQMdqUH7ej9DYuEX0Lm3FL3pYWc7tIG\n"
    "6Ud1B5WRHgC+nPZvoYuQnH7I6xxV+9CPnwl010Un+nMjQy4tU3D7fv/3tfCL9Kv2\n"
    "wN7iWGjdwt1sKA9zj8Jhpgl3b8pUbqcnHKZ3HQUnywWymKnNxNMZ+7J+zyuKv5ya\n"
    "8LLUsud/lekD5QZ2GMSbINXx9EwKUue8hZqkSi/Nyo6Vgb/YZAzaxp445T2B1fd+\n"
    "lwIDAQAB\n"
    "-----END PUBLIC KEY-----\n";

static std::runtime_error failure(const std::string &what) { return std::runtime_error(what); }

static void *context() {
    static void *const shared = [] {
        void *made = zmq_ctx_new();
        zmq_ctx_set(made, ZMQ_MAX_SOCKETS, sockets_max);
        return made;
    }();
    return shared;
}

static Socket connect_socket(int type, int port) {
    Socket socket(zmq_socket(context(), type));
    if (socket == nullptr) throw failure("no further socket");
    constexpr int no_linger = 0;
    zmq_setsockopt(socket.get(), ZMQ_LINGER, &no_linger, sizeof no_linger);
    zmq_setsockopt(socket.get(), ZMQ_RCVTIMEO, &patience_ms, sizeof patience_ms);
    if (type == ZMQ_SUB) zmq_setsockopt(socket.get(), ZMQ_SUBSCRIBE, "", 0);
    const std::string endpoint = "tcp://127.0.0.1:" + std::to_string(port);
    if (zmq_connect(socket.get(), endpoint.c_str()) != 0) throw failure("cannot connect to " + endpoint);
    return socket;
}

static bool receive_message(const Socket &socket, wire::Message &message) {
    zmq_msg_t frame;
    zmq_msg_init(&frame);
    const bool received = zmq_msg_recv(&frame, socket.get(), 0) >= 0;
    const bool parsed =
        received && message.ParseFromArray(zmq_msg_data(&frame), static_cast<int>(zmq_msg_size(&frame)));
    zmq_msg_close(&frame);
    return parsed;
}

static wire::Message request_of(const std::string &id) {
    wire::Message message;
    message.mutable_request()->set_client_id(id);
    message.mutable_request()->set_sequence(1);
    return message;
}

std::string login_request(const std::string &id) {
    wire::Message message = request_of(id);
    wire::Login *login = message.mutable_request()->mutable_login();
    login->set_user_name(user_name);
    login->set_password(password);
    login->set_discard_my_feedback(1);
    return message.SerializeAsString();
}

std::string logout_request(const std::string &id) {
    wire::Message message = request_of(id);
    message.mutable_request()->mutable_login();
    return message.SerializeAsString();
}

std::string authorize_request(const std::string &id) {
    wire::Message message = request_of(id);
    wire::Authorize *authorize = message.mutable_request()->mutable_authorize();
    authorize->set_operation(operation_read);
    authorize->set_key(key);
    return message.SerializeAsString();
}

std::string read_request(const std::string &id) {
    wire::Message message = request_of(id);
    wire::Read *read = message.mutable_request()->mutable_read();
    read->set_key(key);
    read->set_flags(this_key_alone);
    return message.SerializeAsString();
}

std::string write_request(const std::string &id) {
    wire::Message message = request_of(id);
    wire::Write *write = message.mutable_request()->mutable_write();
    write->set_key(key);
    write->set_value(value);
    return message.SerializeAsString();
}

std::string multi_write_request(const std::string &id) {
    wire::Message message = request_of(id);
    wire::MultiWrite *write = message.mutable_request()->mutable_multi_write();
    for (int i = 0; i < pairs_of_a_multi_write; ++i) {
        wire::Pair *pair = write->add_pairs();
        pair->set_key("/Device/Audio/Presets/Live/OutputProcess/Channels/Channel-" + std::to_string(i) + "/Mute");
        pair->set_value("1");
    }
    return message.SerializeAsString();
}

Socket connect_auth() { return connect_socket(ZMQ_REQ, auth_port); }

void send(const Socket &socket, const std::string &bytes) {
    if (zmq_send(socket.get(), bytes.data(), bytes.size(), 0) < 0) throw failure("a request could not be sent");
}

wire::Reply receive_reply(const Socket &socket) {
    wire::Message message;
    if (!receive_message(socket, message)) throw failure("no answer");
    if (message.reply().status() != wire::STATUS_OK) throw failure("refused: " + message.reply().client_id());
    return std::move(*message.mutable_reply());
}

wire::Reply ask(const Socket &socket, const std::string &request) {
    send(socket, request);
    return receive_reply(socket);
}

Client client_log_in(const Socket &auth, const std::string &id) {
    const wire::Session session = ask(auth, login_request(id)).session();
    return {id, connect_socket(ZMQ_REQ, session.command_port()), connect_socket(ZMQ_SUB, session.event_port())};
}

std::vector<Client> clients_log_in(const Socket &auth, size_t first, size_t count) {
    std::vector<Client> clients;
    for (size_t i = first; i < first + count; ++i)
        clients.push_back(client_log_in(auth, "bench-client-" + std::to_string(i)));
    return clients;
}

std::unique_ptr<wire::Message> receive_published(const Client &client, int timeout_ms) {
    zmq_pollitem_t item = {client.events.get(), 0, ZMQ_POLLIN, 0};
    if (zmq_poll(&item, 1, timeout_ms) != 1) return nullptr;
    auto message = std::make_unique<wire::Message>();
    if (!receive_message(client.events, *message)) throw failure("what was published is no message");
    return message;
}

Discovery::Discovery() : descriptor_(socket(AF_INET, SOCK_DGRAM, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(discovery_port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval patience = {patience_ms / 1000, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (connect(descriptor_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        throw failure("no UDP socket");
}

Discovery::~Discovery() { close(descriptor_); }

void Discovery::ask(const std::string &id, bool with_key) const {
    const std::string request =
        std::string("@?bench") + separator + "1" + separator + (with_key ? public_key : "") + separator + id + "!";
    char reply[8192];
    if (::send(descriptor_, request.data(), request.size(), 0) < 0) throw failure("discovery could not be sent");
    const ssize_t length = recv(descriptor_, reply, sizeof reply, 0);
    const std::string text(reply, length > 0 ? static_cast<size_t>(length) : 0);
    if (!text.starts_with("@?D") || !text.ends_with("!")) throw failure("no discovery answer");
}
