#include "harness/remote_client.h"

#include <ostream>
#include <zmq.h>

#include <gtest/gtest.h>

static constexpr int32_t alarm_code = 40;                  // the only one that is published
static constexpr int32_t fence_channel_first = 1'000'000;  // no device has that many

// An event that is published before the subscription stands is lost; then it is published again after this time.
static constexpr std::chrono::milliseconds resend_after{50};

std::ostream &operator<<(std::ostream &out, const Ports &ports) {
    return out << "commands " << ports.command << ", events " << ports.event;
}

// A message in short.
static std::string shown(const std::string &bytes) { return testing::PrintToString(bytes.substr(0, 100)); }

static int32_t publish_fence(Gateway &gateway, const Where &where) {
    static int32_t channel = fence_channel_first;
    const Answer answer = gateway.call("Dispatch", g_variant_new("(idi)", alarm_code, 0.0, ++channel), where);
    if (answer != empty_reply) abandon("the fence was not published: " + answer.message, where);
    return channel;
}

/* The fence's channel, or 0 for any other message. */
static int32_t fence_in(const wire::Message &message) {
    const int32_t channel = message.event().alarm().channel();
    return channel > fence_channel_first ? channel : 0;
}

RemoteClient::RemoteClient(std::string id, std::string address)
    : id_(std::move(id)), address_(std::move(address)), authentication_(connect(ZMQ_REQ, authentication_port)) {}

RemoteClient::Socket RemoteClient::connect(int type, int port) const {
    static void *const context = zmq_ctx_new();
    Socket socket(zmq_socket(context, type), zmq_close);
    const int linger_ms = 0;
    zmq_setsockopt(socket.get(), ZMQ_LINGER, &linger_ms, sizeof linger_ms);
    if (type == ZMQ_SUB) zmq_setsockopt(socket.get(), ZMQ_SUBSCRIBE, "", 0);
    const std::string endpoint = "tcp://" + address_ + ":" + std::to_string(port);
    if (zmq_connect(socket.get(), endpoint.c_str()) != 0) throw Abandoned("no connection to " + endpoint);
    return socket;
}

static std::optional<std::string> receive_frame(void *socket, std::chrono::milliseconds at_most = event_timeout()) {
    zmq_msg_t frame;
    zmq_msg_init(&frame);
    const auto receive = [&](std::chrono::milliseconds wait) {
        const int receive_ms = static_cast<int>(wait.count());
        zmq_setsockopt(socket, ZMQ_RCVTIMEO, &receive_ms, sizeof receive_ms);
        return zmq_msg_recv(&frame, socket, 0) >= 0;
    };
    std::optional<std::string> bytes;
    if (comes(receive, at_most)) bytes.emplace(static_cast<char *>(zmq_msg_data(&frame)), zmq_msg_size(&frame));
    EXPECT_FALSE(bytes && zmq_msg_more(&frame) != 0) << "a message of several frames";
    zmq_msg_close(&frame);
    return bytes;
}

void RemoteClient::send(Channel channel, const Texts &frames, Where where) {
    void *socket = socket_of(channel);
    for (size_t i = 0; i < frames.size(); i++) {
        const int flags = i + 1 < frames.size() ? ZMQ_SNDMORE : 0;
        if (zmq_send(socket, frames[i].data(), frames[i].size(), flags) < 0) abandon(id_ + " cannot send", where);
    }
}

std::string RemoteClient::exchange(Channel channel, const Texts &frames, Where where) {
    send(channel, frames, where);
    const auto answer = receive_frame(socket_of(channel));
    if (!answer) {
        const char *const socket = channel == Channel::command ? "command" : "authentication";
        abandon(id_.substr(0, 50) + " got no reply on the " + socket + " socket to " + shown(frames[0]), where);
    }
    return *answer;
}

wire::Reply RemoteClient::ask(Channel channel, wire::Request request, Where where) {
    if (request.client_id().empty()) request.set_client_id(id_);
    request.set_sequence(++sequence_);
    wire::Message sent, received;
    *sent.mutable_request() = request;
    const std::string bytes = exchange(channel, {sent.SerializeAsString()}, where);
    if (!received.ParseFromString(bytes) || !received.has_reply())
        abandon(id_ + " asked " + shown(sent.SerializeAsString()) + " and got no reply but " + shown(bytes), where);
    EXPECT_EQ(received.reply().client_id(), request.client_id());
    EXPECT_EQ(received.reply().sequence(), request.sequence());
    return received.reply();
}

wire::Request login_request(const LoginOptions &options) {
    wire::Request request;
    wire::Login &login = *request.mutable_login();
    if (options.user_name) login.set_user_name(*options.user_name);
    if (options.password) login.set_password(*options.password);
    if (options.discovery) login.set_discovery(*options.discovery);
    login.set_monitor(options.monitor);
    login.set_discard_my_feedback(options.discard_my_feedback);
    login.set_hide_secure_info(options.hide_secure_info);
    login.set_no_lock(options.no_lock);
    return request;
}

Ports RemoteClient::log_in(const LoginOptions &options, Where where) {
    const wire::Reply reply = ask(Channel::authentication, login_request(options), where);
    EXPECT_EQ(reply.has_session(), reply.status() == wire::STATUS_OK);
    const Ports ports{reply.session().command_port(), reply.session().event_port()};
    if (reply.has_session() && options.connect) connect_to(ports);
    return ports;
}

void RemoteClient::connect_to(Ports ports) {
    if (ports == ports_ && commands_) return;
    commands_ = connect(ZMQ_REQ, ports.command);
    events_ = connect(ZMQ_SUB, ports.event);
    ports_ = ports;
}

wire::Reply RemoteClient::log_out(Channel channel, Where where) {
    return ask(channel, login_request({.user_name = std::nullopt, .password = std::nullopt}), where);
}

wire::Reply RemoteClient::read(const std::string &key, uint32_t flags, Where where) {
    wire::Request request;
    request.mutable_read()->set_key(key);
    request.mutable_read()->set_flags(flags);
    return ask(Channel::command, request, where);
}

wire::Reply RemoteClient::write(const std::string &key, const OptionalText &value, uint32_t type, Where where) {
    wire::Request request;
    request.mutable_write()->set_key(key);
    if (value) request.mutable_write()->set_value(*value);
    request.mutable_write()->set_type(type);
    return ask(Channel::command, request, where);
}

wire::Reply RemoteClient::multi_write(const Pairs &pairs, Where where) {
    wire::Request request;
    request.mutable_multi_write();
    for (const auto &[key, value] : pairs) {
        wire::Pair &pair = *request.mutable_multi_write()->add_pairs();
        if (key) pair.set_key(*key);
        if (value) pair.set_value(*value);
    }
    return ask(Channel::command, request, where);
}

wire::Reply RemoteClient::authorize(uint32_t operation, const std::string &key, uint32_t recursive, Where where) {
    wire::Request request;
    request.mutable_authorize()->set_operation(operation);
    request.mutable_authorize()->set_key(key);
    request.mutable_authorize()->set_recursive(recursive);
    return ask(Channel::command, request, where);
}

std::string RemoteClient::discovery_text(Channel channel, Where where) {
    wire::Request request;
    request.mutable_discovery();
    return ask(channel, request, where).discovery();
}

void RemoteClient::hang_up() {
    commands_.reset();
    events_.reset();
}

std::optional<wire::Message> RemoteClient::hear(std::chrono::milliseconds at_most) {
    const auto frame = receive_frame(events_.get(), at_most);
    if (!frame) return std::nullopt;
    wire::Message message;
    EXPECT_TRUE(message.ParseFromString(*frame)) << "no message of the contract";
    return message;
}

wire::Message RemoteClient::must_hear(const Where &where) {
    const auto message = hear(event_timeout());
    if (!message) abandon(id_ + " hears no event on port " + std::to_string(ports_.event), where);
    return *message;
}

void RemoteClient::subscribe(Gateway &gateway, Where where) {
    int32_t sent = 0, seen = 0;
    for (const auto end = deadline(); seen == 0;) {
        if (Clock::now() > end) abandon(id_ + " hears nothing on port " + std::to_string(ports_.event), where);
        sent = publish_fence(gateway, where);
        if (const auto message = hear(resend_after)) seen = fence_in(*message);
    }
    while (seen != sent) seen = fence_in(must_hear(where));
}

wire::Message RemoteClient::next_event(Where where) {
    wire::Message message;
    do message = must_hear(where);
    while (fence_in(message) != 0);
    return message;
}

std::vector<wire::Message> RemoteClient::events_so_far(Gateway &gateway, Where where) {
    const int32_t fence = publish_fence(gateway, where);
    std::vector<wire::Message> events;
    for (wire::Message message; fence_in(message = must_hear(where)) != fence;)
        if (fence_in(message) == 0) events.push_back(message);
    return events;
}
