/* The start of the network side is one list: each step is tried in turn and the first essential one that fails ends it.
 * What exists by then is recorded in the server, so that one teardown serves every length that the list can have
 * reached. */
#include "net/server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "common/log.h"
#include "common/signals.h"
#include "net/authentication.h"
#include "net/discovery.h"
#include "net/endpoint.h"
#include "net/notification.h"
#include "net/resources.h"
#include "net/shutdown.h"
#include "net/static_discovery.h"

static constexpr int udp_linger_s = 3;
static constexpr size_t for_ever = 0;               // the number of times that a timer fires
static constexpr unsigned ticks_between_drops = 8;  // of silent connections: a quarter of a second

static constexpr SocketOption auth_options[] = {
    {zsock_set_linger,              1000             }, // ms
    {zsock_set_maxmsgsize,          max_message_bytes},
    {zsock_set_tcp_keepalive,       1                },
    {zsock_set_tcp_keepalive_idle,  20               }, // s
    {zsock_set_tcp_keepalive_cnt,   2                },
    {zsock_set_tcp_keepalive_intvl, 5                }, // s
    {zsock_set_sndtimeo,            2000             }, // ms
    {zsock_set_handshake_ivl,       0                }, // ms; no limit
    {zsock_set_reconnect_ivl,       200              }, // ms
    {zsock_set_reconnect_ivl_max,   1000             }, // ms
};

AccessServer *srv = nullptr;
GDBusConnection *bus_connection = nullptr;
zmq_pollitem_t discovery_item, auth_item;

static void on_bus_closed(GDBusConnection *, gboolean, GError *, void *) { kesto_mainloop_stop(); }

// GDBus would end the process by a signal that the main thread keeps blocked: the stop must not depend on it.
static void connect_bus() {
    bus_connection = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
    if (bus_connection == nullptr) return;
    g_dbus_connection_set_exit_on_close(bus_connection, FALSE);
    g_signal_connect(bus_connection, "closed", G_CALLBACK(on_bus_closed), nullptr);
}

static void create_server(KestoProcess *process) {
    srv = g_new0(AccessServer, 1);
    if (bus_connection == nullptr) connect_bus();
    srv->udp_fd = -1;
    srv->udp_port = discovery_udp_port;
    srv->auth_port = auth_tcp_port;
    srv->next_cmd_port = cmd_port_first;
    srv->next_event_port = event_port_first;
    srv->timer_id = -1;

    LOG("[NET] access first reading settings, it can fail\n");
    const int complete = server_load_identity(srv);
    LOG("result: %d\n", complete);
    srv->owner = process;
    LOG("[NET] setting private to %p\n", static_cast<void *>(process));
}

static bool create_udp_socket() {
    srv->udp_fd = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    return srv->udp_fd != -1;
}

static void set_udp_linger() {
    const linger option = {.l_onoff = 1, .l_linger = udp_linger_s};
    if (setsockopt(srv->udp_fd, SOL_SOCKET, SO_LINGER, &option, sizeof(option)) == -1) {
        LOG("[NET] error setting SO_LINGER on discovery\n");
    }
}

static bool enable_udp_option(int option) {
    const int on = 1;
    return setsockopt(srv->udp_fd, SOL_SOCKET, option, &on, sizeof(on)) != -1;
}

static void note_loopback_mode() { srv->loopback = bind_address_is_loopback() ? 1 : 0; }

static bool read_udp_flags(int *flags) {
    *flags = fcntl(srv->udp_fd, F_GETFL);
    return *flags != -1;
}

static bool set_udp_nonblocking(int flags) { return fcntl(srv->udp_fd, F_SETFL, flags | O_NONBLOCK) != -1; }

static void allow_broadcast() {
    if (!enable_udp_option(SO_BROADCAST)) LOG("setsockopt SO_BROADCAST\n");
}

static bool bind_udp() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<uint16_t>(srv->udp_port));
    return bind(srv->udp_fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != -1;
}

static bool create_clients() {
    srv->clients = g_hash_table_new_full(g_str_hash, g_str_equal, nullptr, nullptr);
    return srv->clients != nullptr;
}

static bool init_czmq() {
    resources_raise_descriptor_limit();
    if (!resources_for_start()) return false;
    resources_raise_socket_limit();
    const bool ready = zsys_init() != nullptr;
    stop_signals_unblock();  // from here on this thread takes them, through CZMQ's handler
    return ready;
}

static bool create_loop() {
    srv->loop = zloop_new();
    return srv->loop != nullptr;
}

static void set_loop_tracing() {
    const char *setting = g_getenv("CZMQ_VERBOSE_LOOP");
    if (setting != nullptr) {
        LOG("czmq verbose loop: %s\n", setting);
        if (g_str_equal(setting, "1") || g_str_equal(setting, "on") || g_str_equal(setting, "yes")) {
            LOG("czmq verbose loop VERBOSE\n");
        }
    }
    zloop_set_verbose(srv->loop, setting != nullptr);
}

// Without its poller the service runs on, without discovery.
static void register_discovery() {
    discovery_item = {.socket = nullptr, .fd = srv->udp_fd, .events = ZMQ_POLLIN, .revents = 0};
    if (zloop_poller(srv->loop, &discovery_item, server_discovery, srv) == -1) {
        LOG("error registering server_discovery\n");
    }
    zloop_poller_set_tolerant(srv->loop, &discovery_item);
}

static bool create_auth_socket() {
    if (resources_for_start()) srv->auth = zsock_new(ZMQ_REP);
    return srv->auth != nullptr;
}

static bool bind_auth_socket() {
    set_options(srv->auth, auth_options);
    zsock_set_rcvhwm(srv->auth, max_waiting_requests);
    const int bound = endpoint_bind(srv->auth, bind_address(), srv->auth_port);
    LOG("[NET] auth port %d %d\n", srv->auth_port, bound);
    return bound == srv->auth_port;
}

static bool register_auth_socket() {
    auth_item = {.socket = zsock_resolve(srv->auth), .fd = 0, .events = ZMQ_POLLIN, .revents = 0};
    if (zloop_poller(srv->loop, &auth_item, server_auth, srv) == -1) return false;
    zloop_poller_set_tolerant(srv->loop, &auth_item);
    return true;
}

static int on_tick(zloop_t *loop, int timer_id, void *server) {
    static unsigned ticks = 0;
    const int result = server_mq_timer(loop, timer_id, server);
    if (++ticks % ticks_between_drops == 0) resources_drop_silent_connections();
    return result;
}

static bool start_queue_timer() {
    srv->timer_id = zloop_timer(srv->loop, queue_period_ms, for_ever, on_tick, srv);
    return srv->timer_id != -1;
}

static void run_loop() {
    LOG("zsys_catch_interrupts\n");
    zsys_catch_interrupts();
    const int result = zloop_start(srv->loop);
    LOG("end zmq mainloop: %d\n", result);
}

static bool begin_server(void *process) {
    if (process == nullptr) return false;
    create_server(static_cast<KestoProcess *>(process));
    return true;
}

// What cannot fail, or may fail without ending the start, between the steps that must succeed.
static void prepare_udp_socket() {
    set_udp_linger();
    note_loopback_mode();
}

static void prepare_loop() {
    set_loop_tracing();
    ensure_static_discovery(srv);
    register_discovery();
}

void *kesto_access_net_start(void *process) {
    int flags = -1;
    if (!begin_server(process)) LOG_FAILED("user_data cast NULL");
    else if (!create_udp_socket()) LOG_FAILED("socket udp error");
    else if (prepare_udp_socket(); !read_udp_flags(&flags)) LOG_FAILED("fcntl F_GETFL");
    else if (!set_udp_nonblocking(flags)) LOG_FAILED("fcntl F_SETFL to set not blocking");
    else if (!enable_udp_option(SO_REUSEADDR)) LOG_FAILED("setsockopt SO_REUSEADDR");
    else if (allow_broadcast(); !bind_udp()) LOG_FAILED("bind on udp socket");
    else if (!create_clients()) LOG_FAILED("error creating z hash");
    else if (!init_czmq()) LOG_FAILED("error init default context");
    else if (!create_loop()) LOG_FAILED("error creating z loop");
    else if (prepare_loop(); !create_auth_socket()) LOG_FAILED("error creating REP socket");
    else if (!bind_auth_socket()) LOG("error auth socket\n");
    else if (!register_auth_socket()) LOG("error creating poller for auth socket\n");
    else if (!start_queue_timer()) LOG("error creating timer\n");
    else run_loop();

    server_destroy();
    kesto_mainloop_stop();
    return nullptr;
}
