// Sequences of requests on the authentication and the command handler. An input is a row of requests, each: a byte for
// the socket (bit 0) and the number of frames (bits 1 and 2, plus one), then for each frame a byte of length and the
// bytes.
#include <string_view>

#include <gio/gio.h>

#include <kesto/proto.h>

#include "access.pb.h"
#include "net/records/client.h"
#include "net/records/server.h"
#include "net/requests/command_channel.h"
#include "net/sessions/authentication.h"
#include "net/sessions/connections.h"
#include "net/sessions/ports.h"
#include "net/sessions/release.h"
#include "net/transport/bus.h"
#include "target.h"

namespace wire = kesto::access::v1;

// These replace the libraries' functions: a bus whose data service always answers, and no pauses.
extern "C" GVariant *g_dbus_connection_call_sync(GDBusConnection *, const char *, const char *, const char *,
                                                 const char *method, GVariant *arguments, const GVariantType *,
                                                 GDBusCallFlags, int, GCancellable *, GError **) {
    g_variant_unref(g_variant_ref_sink(arguments));
    const std::string_view name = method;
    GVariant *reply = name == "Read"    ? g_variant_new("(v)", g_variant_new_string("value"))
                      : name == "Write" ? g_variant_new("(i)", 0)
                                        : g_variant_new_parsed("(['OK'],)");
    return g_variant_ref_sink(reply);
}
extern "C" void g_dbus_connection_call(GDBusConnection *, const char *, const char *, const char *, const char *,
                                       GVariant *arguments, const GVariantType *, GDBusCallFlags, int, GCancellable *,
                                       GAsyncReadyCallback, gpointer) {
    g_variant_unref(g_variant_ref_sink(arguments));
}
extern "C" void g_usleep(gulong) {}

struct Channel {
    zsock_t *rep, *dealer;
    explicit Channel(const char *endpoint) : rep(zsock_new_rep(endpoint)), dealer(zsock_new_dealer(endpoint)) {
        zsock_set_rcvtimeo(dealer, 0);
    }
    ~Channel() {
        zsock_destroy(&dealer);
        zsock_destroy(&rep);
    }
};

struct Fixture {
    AccessServer server = {};
    Channel auth{"inproc://auth"}, commands{"inproc://commands"};

    Fixture() {
        proto_init(1, 0);
        server.loop = zloop_new();
        server.next_cmd_port = first_ports.command;
        server.next_event_port = first_ports.event;
        server.session_handlers = {.command = client_read, .monitor = client_monitor_event};
        server.clients = g_hash_table_new_full(g_str_hash, g_str_equal, nullptr, nullptr);
        bus_connection = reinterpret_cast<GDBusConnection *>(this);
    }
};

static Client *client_with_commands(AccessServer *server) {
    Client *client = client_lookup(server, "panel");
    if (client == nullptr) {
        client = client_new();
        client->cl_server = server;
        client->cl_id = g_strdup("panel");
        client_insert(server, client);
    }
    if (client->cl_cmd_port == no_port) client->cl_cmd_port = first_ports.command;
    return client;
}

static void require_one_answer(zsock_t *dealer) {
    zmsg_t *answer = zmsg_recv(dealer);
    require(answer != nullptr && zmsg_size(answer) == 2);
    zframe_t *last = zmsg_last(answer);
    wire::Message message;
    require(message.ParseFromArray(zframe_data(last), static_cast<int>(zframe_size(last))));
    require(message.has_reply() || zframe_size(last) == 0);
    zmsg_destroy(&answer);
    require(zmsg_recv(dealer) == nullptr);
}

static void serve(Fixture &fixture, bool on_commands, zmsg_t *request) {
    Channel &channel = on_commands ? fixture.commands : fixture.auth;
    zmsg_pushmem(request, "", 0);
    zmsg_send(&request, channel.dealer);
    zmq_pollitem_t item = {.socket = zsock_resolve(channel.rep), .fd = 0, .events = ZMQ_POLLIN, .revents = 0};
    if (on_commands) client_read(fixture.server.loop, &item, client_with_commands(&fixture.server));
    else server_auth(fixture.server.loop, &item, &fixture.server);
    require_one_answer(channel.dealer);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static Fixture fixture;
    FuzzInput input(data, size);
    while (input.left.size() >= 2) {
        const uint8_t head = input.byte();
        zmsg_t *request = zmsg_new();
        for (int frame = 0; frame <= (head >> 1 & 3); ++frame) {
            const std::string_view bytes = input.bytes(input.byte());
            zmsg_addmem(request, bytes.data(), bytes.size());
        }
        serve(fixture, (head & 1) != 0, request);
    }
    g_hash_table_foreach_remove(fixture.server.clients, client_free_callback, nullptr);
    return 0;
}
