// A client's two sockets, with the options and on the ports of the service's own.
#include "baseline.h"

static constexpr int command_port_last = 62998, command_port_again = 62002;
static constexpr int event_port_last = 63998, event_port_again = 63002;
static constexpr int message_bytes_max = 10485760;
static constexpr SocketTimes command_times = {150, 1500}, event_times = {0, 600};
static constexpr int closing_linger_ms = 50;

static int take_port(int &next, int last, int again) {
    const int port = next++;
    if (next > last) next = again;
    return port;
}

static zsock_t *open_socket(int type, SocketTimes times) {
    zsock_t *socket = zsock_new(type);
    zsock_set_linger(socket, times.linger_ms);
    zsock_set_tcp_keepalive(socket, 1);
    zsock_set_tcp_keepalive_idle(socket, 20);
    zsock_set_tcp_keepalive_cnt(socket, 2);
    zsock_set_tcp_keepalive_intvl(socket, 5);
    zsock_set_sndtimeo(socket, times.send_ms);
    zsock_set_handshake_ivl(socket, 0);
    zsock_set_reconnect_ivl(socket, 200);
    zsock_set_reconnect_ivl_max(socket, 1000);
    return socket;
}

zsock_t *open_request_socket(SocketTimes times, int port) {
    zsock_t *socket = open_socket(ZMQ_REP, times);
    zsock_set_maxmsgsize(socket, message_bytes_max);
    zsock_bind(socket, "tcp://*:%d", port);
    return socket;
}

static zmq_pollitem_t item_of(zsock_t *socket) { return {zsock_resolve(socket), 0, ZMQ_POLLIN, 0}; }

Session &session_open(Baseline &baseline, const std::string &id, const wire::Login &login) {
    std::unique_ptr<Session> &known = baseline.sessions[id];
    if (known) return *known;
    known = std::make_unique<Session>();
    Session &session = *known;
    session.id = id;
    session.hears_itself = login.discard_my_feedback() == 0;
    session.command_port = take_port(baseline.next_command_port, command_port_last, command_port_again);
    session.event_port = take_port(baseline.next_event_port, event_port_last, event_port_again);

    session.commands = open_request_socket(command_times, session.command_port);
    session.events = open_socket(ZMQ_PUB, event_times);
    zsock_bind(session.events, "tcp://*:%d", session.event_port);

    zmq_pollitem_t item = item_of(session.commands);
    zloop_poller(baseline.loop, &item, on_command, &session);
    bus_tell_audio(baseline, "ClientAuthenticated", id);
    return session;
}

void session_close(Baseline &baseline, const std::string &id) {
    const auto found = baseline.sessions.find(id);
    if (found == baseline.sessions.end()) return;
    Session &session = *found->second;
    bus_tell_audio(baseline, "ClientDeauthenticated", id);
    zmq_pollitem_t item = item_of(session.commands);
    zloop_poller_end(baseline.loop, &item);
    zsock_set_linger(session.commands, closing_linger_ms);
    zsock_destroy(&session.commands);
    zsock_destroy(&session.events);
    baseline.sessions.erase(found);
}
