/* The transport. A REQ socket alternates strictly, so one that did not get its answer is never used again. */
#include "wire.h"

#include <algorithm>
#include <netdb.h>

#include <gio/gio.h>

#include "failure.h"

using Frame = std::unique_ptr<zframe_t, ByAddress<zframe_destroy>>;
using FrameList = std::unique_ptr<zmsg_t, ByAddress<zmsg_destroy>>;
using AddressList = std::unique_ptr<addrinfo, ByPointer<freeaddrinfo>>;

static Socket connect_socket(int type, const Endpoint &endpoint) {
    Socket socket(zsock_new(type));
    zsock_set_linger(socket.get(), 0);
    if (zsock_connect(socket.get(), "tcp://%s:%d", endpoint.address.c_str(), endpoint.port) != 0) {
        throw not_reachable(endpoint_text(endpoint) + " is no address to connect to");
    }
    return socket;
}

static bool wait_readable(const Socket &socket, int timeout_ms) {
    zmq_pollitem_t item = {zsock_resolve(socket.get()), 0, ZMQ_POLLIN, 0};
    return zmq_poll(&item, 1, timeout_ms) == 1;
}

static Frame receive_frame(const Socket &socket, int timeout_ms) {
    return wait_readable(socket, timeout_ms) ? Frame(zframe_recv(socket.get())) : nullptr;
}

static bool send_frames(const Socket &socket, const std::vector<std::string> &frames) {
    for (size_t i = 0; i < frames.size(); ++i) {
        zframe_t *frame = zframe_new(frames[i].data(), frames[i].size());
        const int more = i + 1 < frames.size() ? ZFRAME_MORE : 0;
        if (zframe_send(&frame, socket.get(), ZFRAME_DONTWAIT | more) == 0) continue;
        zframe_destroy(&frame);
        return false;
    }
    return true;
}

static Failure no_answer(const Endpoint &endpoint, int timeout_ms) {
    if (zsys_interrupted) return interrupted();
    g_autofree char *limit = g_strdup_printf("%g s", static_cast<double>(timeout_ms) / ms_per_s);
    return not_reachable("no answer from " + endpoint_text(endpoint) + " within " + limit);
}

std::string endpoint_text(const Endpoint &endpoint) { return endpoint.address + ":" + std::to_string(endpoint.port); }

std::string resolve_host(const std::string &host) {
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const int error = getaddrinfo(host.c_str(), nullptr, &wanted, &found);
    const AddressList list(found);
    char text[NI_MAXHOST];
    if (error != 0 ||
        getnameinfo(list->ai_addr, list->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) != 0) {
        throw not_reachable("no IPv4 address is known for host " + host);
    }
    return text;
}

bool accepts_connections(const Endpoint &endpoint, int timeout_ms) {
    g_autoptr(GSocketClient) client = g_socket_client_new();
    g_socket_client_set_enable_proxy(client, FALSE);
    g_socket_client_set_timeout(client, static_cast<guint>((timeout_ms + ms_per_s - 1) / ms_per_s));
    g_autoptr(GSocketConnection) connection = g_socket_client_connect_to_host(
        client, endpoint.address.c_str(), static_cast<guint16>(endpoint.port), nullptr, nullptr);
    return connection != nullptr;
}

Socket connect_commands(const Endpoint &endpoint) { return connect_socket(ZMQ_REQ, endpoint); }

Socket connect_events(const Endpoint &endpoint) {
    Socket socket = connect_socket(ZMQ_SUB, endpoint);
    zsock_set_subscribe(socket.get(), "");
    return socket;
}

std::vector<std::string> exchange_frames(const Socket &socket, const Endpoint &endpoint,
                                         const std::vector<std::string> &frames, int timeout_ms) {
    if (!send_frames(socket, frames)) {
        throw not_reachable("cannot send to " + endpoint_text(endpoint));
    }
    const FrameList received(wait_readable(socket, timeout_ms) ? zmsg_recv(socket.get()) : nullptr);
    if (!received) throw no_answer(endpoint, timeout_ms);
    std::vector<std::string> answer;
    for (zframe_t *frame = zmsg_first(received.get()); frame != nullptr; frame = zmsg_next(received.get())) {
        const byte *bytes = zframe_data(frame);
        answer.emplace_back(bytes, bytes + zframe_size(frame));
    }
    return answer;
}

std::string request_frame(const wire::Request &request) {
    wire::Message message;
    *message.mutable_request() = request;
    return message.SerializeAsString();
}

wire::Reply exchange(const Socket &socket, const Endpoint &endpoint, const wire::Request &request, int timeout_ms) {
    const auto answer = exchange_frames(socket, endpoint, {request_frame(request)}, timeout_ms);
    if (answer.size() == 1 && answer[0].empty()) {
        throw refused("the device could not make anything of the request");
    }
    const std::string who = endpoint_text(endpoint);
    wire::Message message;
    if (answer.size() != 1 || !message.ParseFromString(answer[0]) || !message.has_reply())
        throw refused(who + " answered with something else than a reply");
    const std::string asked = std::to_string(request.sequence()), answered = std::to_string(message.reply().sequence());
    if (asked != answered) throw refused(who + " answered request " + asked + " as " + answered);
    return message.reply();
}

std::optional<wire::Message> receive_published(const Socket &events, int timeout_ms) {
    const Frame frame = receive_frame(events, std::max(timeout_ms, 0));
    wire::Message message;
    if (!frame || !message.ParseFromArray(zframe_data(frame.get()), static_cast<int>(zframe_size(frame.get()))))
        return std::nullopt;
    return message;
}
