// The two threads: D-Bus methods on the main thread, everything else in one reactor loop on the network thread.
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include "baseline.h"

static constexpr int discovery_port = 8004, auth_port = 60000, first_command_port = 62001, first_event_port = 63001;
static constexpr SocketTimes auth_times = {1000, 2000};
static constexpr int tick_ms = 33, for_ever = 0, all_that_libzmq_can_have = 0;

Baseline the_baseline{};

static int open_discovery_socket() {
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(discovery_port);
    (void)bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
    return descriptor;
}

static int on_login(zloop_t *, zmq_pollitem_t *item, void *argument) {
    auto &baseline = *static_cast<Baseline *>(argument);
    static wire::Message received, answer;
    if (!receive_request(item->socket, received)) return 0;
    const wire::Request &request = received.request();
    const bool log_out = !request.login().has_user_name();
    wire::Reply *reply = answer.mutable_reply();
    reply->Clear();
    reply->set_client_id(request.client_id());
    reply->set_sequence(request.sequence());
    reply->set_status(wire::STATUS_OK);
    reply->set_change_count(baseline.change_count.load());
    if (!log_out) {
        const Session &session = session_open(baseline, request.client_id(), request.login());
        reply->mutable_session()->set_command_port(session.command_port);
        reply->mutable_session()->set_event_port(session.event_port);
    }
    send_bytes(item->socket, answer.SerializeAsString());
    if (log_out) session_close(baseline, request.client_id());
    return 0;
}

static int on_tick(zloop_t *, int, void *argument) {
    auto &baseline = *static_cast<Baseline *>(argument);
    while (auto *event = static_cast<std::string *>(g_async_queue_try_pop(baseline.queue))) {
        send_to_all(baseline, *event, nullptr);
        delete event;
    }
    return 0;
}

static void load_identity(Baseline &baseline) {
    baseline.model = bus_read_text(baseline, "/Device/Config/Hardware/Model/Model");
    baseline.serial = bus_read_text(baseline, "/Device/Config/Hardware/Model/Serial");
    baseline.easy_swap_id = bus_read_text(baseline, "/Device/Config/EASY_SWAP_ID");
}

void *network_run(void *argument) {
    auto &baseline = *static_cast<Baseline *>(argument);
    load_identity(baseline);
    zsys_set_max_sockets(all_that_libzmq_can_have);
    zsys_init();
    baseline.loop = zloop_new();
    baseline.next_command_port = first_command_port;
    baseline.next_event_port = first_event_port;

    zmq_pollitem_t discovery = {nullptr, open_discovery_socket(), ZMQ_POLLIN, 0};
    zloop_poller(baseline.loop, &discovery, on_discovery, &baseline);
    baseline.auth = open_request_socket(auth_times, auth_port);
    zmq_pollitem_t auth = {zsock_resolve(baseline.auth), 0, ZMQ_POLLIN, 0};
    zloop_poller(baseline.loop, &auth, on_login, &baseline);
    zloop_timer(baseline.loop, tick_ms, for_ever, on_tick, &baseline);
    zloop_start(baseline.loop);
    return nullptr;
}

int main() {
    rlimit descriptors = {};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = descriptors.rlim_max;
    setrlimit(RLIMIT_NOFILE, &descriptors);
    zsys_handler_set(nullptr);  // SIGTERM simply ends it

    the_baseline.bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    the_baseline.queue = g_async_queue_new();
    bus_export_methods(the_baseline);
    g_thread_new("net-thread", network_run, &the_baseline);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
