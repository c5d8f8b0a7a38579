/* What no request, datagram or signal can reach: functions called in the wrong order or without their arguments, events
 * of kinds that nobody makes, texts longer than any device has. The real functions, with the real platform library. */
#include <cstdarg>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include <kesto/log.h>

#include "common/bus_event.h"
#include "common/private.h"
#include "main/lifecycle.h"
#include "net/authentication.h"
#include "net/client.h"
#include "net/data_access.h"
#include "net/frame.h"
#include "net/identity.h"
#include "net/monitor.h"
#include "net/notification.h"
#include "net/rights.h"
#include "net/server.h"
#include "net/shutdown.h"
#include "net/static_discovery.h"

namespace {

using Texts = std::vector<std::string>;

Texts recorded;

// Keeps the message, without the line's prefix and end; of "file:function:line - what" only what stands behind the
// dash.
[[gnu::format(printf, 1, 2)]] void record(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    g_autofree char *line = g_strdup_vprintf(format, arguments);
    va_end(arguments);
    std::string message = line;
    message.erase(0, message.find("} ") + 2);
    message.pop_back();
    const size_t failure = message.find(" - ");
    if (message.starts_with("src/") && failure != std::string::npos) message.erase(0, failure + 3);
    recorded.push_back(message);
}

struct Unit : testing::Test {
    AccessPrivate priv = {};
    KestoProcess process = {};
    AccessServer server = {};

    Unit() {
        _console_debug = 1;
        _kesto_log_printf = record;
        recorded.clear();
        priv.mq = bus_event_queue_new();
        process.priv = &priv;
        server.owner = &process;
        server.clients = g_hash_table_new_full(g_str_hash, g_str_equal, nullptr, nullptr);
    }
    ~Unit() override {
        bus_connection = nullptr;
        g_hash_table_foreach_remove(server.clients, client_free_callback, nullptr);
        g_hash_table_unref(server.clients);
        g_async_queue_unref(priv.mq);
    }

    Client *add_client(const char *id) {
        Client *client = client_new();
        client->cl_server = &server;
        client->cl_id = g_strdup(id);
        client_insert(&server, client);
        return client;
    }
    void push(uint32_t kind, uint32_t command = 0) {
        BusEvent *event = bus_event_new(static_cast<BusEventKind>(kind));
        if (kind == BUS_EVENT_COMMAND) event->command.command = command;
        bus_event_push(priv.mq, event);
    }
};

TEST_F(Unit, AStopWithoutAStartDoesNothing) {
    process.priv = nullptr;
    EXPECT_EQ(kesto_access_stop(&process), -1);
    kesto_access_net_stop(nullptr);
    kesto_access_net_stop(&process);
    server_destroy();
    EXPECT_EQ(recorded, (Texts{"do nothing for stop", "do nothing for stop"}));
}

TEST_F(Unit, TheQueueTimerTakesEventsInOrderUpToTheStop) {
    constexpr uint32_t unknown_kind = 9, unknown_command = 2;
    push(BUS_EVENT_COMMAND, unknown_command);
    push(unknown_kind);
    push(BUS_EVENT_COMMAND, BUS_COMMAND_SPEAKER_PRESET_LOADED);
    push(BUS_EVENT_STOP);
    push(BUS_EVENT_KV);
    EXPECT_EQ(server_mq_timer(nullptr, 1, &server), -1);
    EXPECT_EQ(recorded, (Texts{"DBUS: broadcasting command: 2", "DBUS: broadcasting command: 2 not yet supported",
                               "DBUS: broadcasting command: 1", "DBUS: broadcasting command: speaker preset loaded",
                               "DISPACH CHANGE TO ALL CLIENTS", "broadcast to 0 client", "request to stop"}));
    EXPECT_EQ(g_async_queue_length(priv.mq), 1);
}

TEST_F(Unit, TheQueueTimerSurvivesWhatIsNotThere) {
    EXPECT_EQ(server_mq_timer(nullptr, 1, nullptr), -1);
    process.priv = nullptr;
    EXPECT_EQ(server_mq_timer(nullptr, 1, &server), 0);
    EXPECT_EQ(recorded, (Texts{"arg == NULL not supported", "priv->mq == NULL"}));
}

TEST_F(Unit, ABroadcastPassesByWhomItCannotReach) {
    Client *client = add_client("panel");
    char key[] = "panel";
    CodecHandle handle(proto_new());
    BroadcastContext context = {.proto = handle.get(), .source = nullptr, .count = 0};
    client_notify(key, client, nullptr);
    client_notify(key, nullptr, &context);
    client_notify(key, client, &context);
    client->cl_events = zsock_new(ZMQ_PUB);
    client->cl_destroy = 1;
    client_notify(key, client, &context);
    client->cl_destroy = 0;
    context.proto = nullptr;
    client_notify(key, client, &context);
    EXPECT_EQ(recorded, (Texts{"not valid param", "not valid client for key 'panel'",
                               "not valid client event (panel) for key 'panel'",
                               "client is mark to be destroyed (panel) for key 'panel'", "not valid proto"}));
    context.proto = handle.get();
    client_notify(key, client, &context);
    EXPECT_EQ(recorded.back(), "avoid to notify empty message");
    EXPECT_EQ(context.count, 0u);
}

TEST_F(Unit, AMonitorEventNeedsAllItsArguments) {
    zloop_t *loop = zloop_new();
    zmq_pollitem_t item = {};
    Client *client = add_client("panel");
    int something = 0;
    client_monitor_event(loop, &item, nullptr);
    client_monitor_event(loop, &item, client);
    client->cl_monitor = reinterpret_cast<zactor_t *>(&something);
    client_monitor_event(nullptr, &item, client);
    client_monitor_event(loop, nullptr, client);
    client_monitor_event(loop, &item, client);
    client->cl_monitor = nullptr;
    const std::string end = "error in client_monitor_event";
    EXPECT_EQ(recorded, (Texts{"client has to be not NULL", end, "client monitor has to be not NULL", end,
                               "loop has to be not NULL", end, "poller has to be not NULL", end,
                               "socket has to be not NULL", end}));
    zloop_destroy(&loop);
}

// In the place of CZMQ's monitor: reports one event and waits for its end.
void scripted_monitor(zsock_t *pipe, void *event) {
    zsock_signal(pipe, 0);
    zstr_send(pipe, static_cast<const char *>(event));
    char *end = zstr_recv(pipe);
    zstr_free(&end);
}

TEST_F(Unit, OnlyAnEventOfTheTwoKindsChangesAnything) {
    zloop_t *loop = zloop_new();
    server.loop = loop;
    for (const char *event : {"OPENED", "DISCONNECTED"}) {
        Client *client = add_client("panel");
        client->cl_monitor = zactor_new(scripted_monitor, const_cast<char *>(event));
        zmq_pollitem_t item = {
            .socket = zactor_resolve(client->cl_monitor), .fd = 0, .events = ZMQ_POLLIN, .revents = 0};
        recorded.clear();
        EXPECT_EQ(client_monitor_event(loop, &item, client), 0);
        if (client_lookup(&server, "panel") != nullptr) {
            EXPECT_EQ(recorded, (Texts{"client monitor event -1", "unmanaged 'OPENED' socket event"}));
            client_free(client, client_free_known);
        } else {
            recorded.resize(5);
            EXPECT_EQ(recorded, (Texts{"client monitor event -1", "DISCONNECTED socket",
                                       "no other command connection opened, so auto-logoff (panel)",
                                       "dbus connection missing", "free client (0)"}));
        }
    }
    server.loop = nullptr;
    zloop_destroy(&loop);
}

TEST_F(Unit, ARecordIsReleasedWhateverItLacks) {
    client_free(nullptr, client_free_known);
    Client *client = add_client("panel");
    g_hash_table_remove(server.clients, "panel");
    int something = 0;
    client->cl_cmds_item.socket = &something;
    client_free(client, client_free_known);
    EXPECT_EQ(recorded,
              (Texts{"client free cmd port = -1, event port -1 (type: 1)", "free cl_cmds poller", "loop unknown",
                     "remove cl_id from list of known client", "strange error removing client: panel", "free cl_id"}));
}

TEST_F(Unit, ALoginNeedsAClientWithAnId) {
    Client *client = client_new();
    EXPECT_EQ(client_authenticate(client, {}), nullptr);
    bus_connection = reinterpret_cast<GDBusConnection *>(this);
    EXPECT_EQ(client_authenticate(nullptr, {}), nullptr);
    EXPECT_EQ(client_authenticate(client, {}), nullptr);
    EXPECT_EQ(client->cl_destroy, 0u);
    EXPECT_EQ(server_auth_callback(nullptr, nullptr, nullptr, 1, 0, 0, 0, nullptr), nullptr);
    bus_connection = nullptr;
    uint32_t hide = 1;
    client_action_get_login_info_callback(nullptr, &hide);
    EXPECT_EQ(hide, 0u);
    EXPECT_EQ(recorded, (Texts{"dbus connection missing", "client is null", "client->cl_id is null",
                               "server_auth_callback: (null) (null) 1 0 0 0 NULL", "NULL pointer p",
                               "missing client from client_action_get_login_info_callback"}));
    client_free(client, client_free_local);
}

TEST_F(Unit, DataAccessNeedsAKeyAValueAClientAndABus) {
    Client *client = add_client("panel");
    CodecHandle handle(proto_new()), stray(proto_new());
    Proto *of_client = handle.get();
    proto_set_private(of_client, client);
    const char *const keys[] = {"/k"}, *const values[] = {"v"};

    EXPECT_EQ(data_read_callback(of_client, 0, "/k"), nullptr);
    EXPECT_EQ(data_write_callback(of_client, 1, "/k", "v"), -1);
    EXPECT_EQ(data_multiwrite_callback(of_client, 1, keys, values, nullptr, nullptr), -1);
    bus_connection = reinterpret_cast<GDBusConnection *>(this);
    EXPECT_EQ(data_read_callback(of_client, 0, ""), nullptr);
    EXPECT_EQ(data_write_callback(of_client, 1, nullptr, "v"), -1);
    EXPECT_EQ(data_write_callback(of_client, 1, "/k", nullptr), -1);
    EXPECT_EQ(data_read_callback(stray.get(), 0, "/k"), nullptr);
    uint32_t count = 7;
    char *list[] = {nullptr}, **results = list;
    EXPECT_EQ(data_multiwrite_callback(of_client, 0, keys, values, &count, &results), 0);
    EXPECT_EQ(data_multiwrite_callback(of_client, 1, nullptr, values, nullptr, nullptr), -1);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(results, nullptr);
    bus_connection = nullptr;
    EXPECT_EQ(recorded, (Texts{"dbus connection missing", "write k=/k, v=v, t=0x1", "dbus connection missing",
                               "multiwrite autorize all keys", "dbus connection missing",
                               "not possible to read NULL or empty key", "write k=(null), v=v, t=0x1", "NULL KEY",
                               "write k=/k, v=(null), t=0x1", "NULL VALUE", "not autorized", "nothing to write"}));
}

TEST_F(Unit, AForeignTextThatIsNotUtf8FailsLikeACallThatCouldNotBeMade) {
    Client *client = add_client("panel");
    CodecHandle handle(proto_new());
    proto_set_private(handle.get(), client);
    bus_connection = reinterpret_cast<GDBusConnection *>(this);
    const char *const broken[] = {"/\xff"};
    EXPECT_EQ(data_read_callback(handle.get(), 0, broken[0]), nullptr);
    EXPECT_EQ(data_write_callback(handle.get(), 1, "/k", broken[0]), -1);
    EXPECT_EQ(data_multiwrite_callback(handle.get(), 1, broken, broken, nullptr, nullptr), -1);
    bus_connection = nullptr;
    EXPECT_EQ(recorded[0], "unable to call method for DBUS datad proxy: the text is not UTF-8");
    EXPECT_EQ(recorded.back(), "DBUS datad Write method error: the text is not UTF-8 (panel)");
}

TEST_F(Unit, AnAuthorizationNeedsAKeyAndAKnownOperation) {
    Client *client = add_client("panel");
    CodecHandle handle(proto_new());
    EXPECT_EQ(key_authorized(handle.get(), PROTO_OPERATION_READ, "/k", 0), 0);
    proto_set_private(handle.get(), client);
    for (const char *user : {"", "root", "quillmont"}) {
        g_free(client->cl_username);
        client->cl_username = *user != '\0' ? g_strdup(user) : nullptr;
        EXPECT_EQ(key_authorized(handle.get(), PROTO_OPERATION_READ, nullptr, 0), 0);
        EXPECT_EQ(key_authorized(handle.get(), PROTO_OPERATION_READ, "", 0), 0);
        EXPECT_EQ(key_authorized(handle.get(), PROTO_OPERATION_OTHER, "/Device/Config/EASY_SWAP_ID", 0), 1);
        EXPECT_EQ(key_authorized(handle.get(), 3, "/k", 0), 0);
        EXPECT_EQ(key_authorized(handle.get(), PROTO_OPERATION_WRITE, "/Device/Config/EASY_SWAP_ID", 0),
                  strcmp(user, "quillmont") == 0 ? 0 : 1);
    }
}

struct ExtraCase {
    const char *enable_4221, *has_lumaversa, *extra;
};

constexpr ExtraCase extras[] = {
    {nullptr, nullptr, "4221=ON"             },
    {"",      "",      "4221=ON"             },
    {"on",    "on",    "4221=ON,LUMAVERSA=ON"},
    {"1",     "1",     "4221=ON,LUMAVERSA=ON"},
    {"0",     "yes",   "4221=OFF"            },
    {"ON",    "ON",    "4221=OFF"            },
};

// It is fixed as long as a process lives, so each row has one of its own.
[[noreturn]] void exit_with_extra(const ExtraCase &row) {
    if (row.enable_4221 != nullptr) setenv("ENABLE4221", row.enable_4221, 1);
    if (row.has_lumaversa != nullptr) setenv("HAS_LUMAVERSA", row.has_lumaversa, 1);
    const bool computed = strcmp(discovery_extra(), row.extra) == 0;
    setenv("ENABLE4221", "changed", 1);
    _exit(computed && strcmp(discovery_extra(), row.extra) == 0 ? EXIT_SUCCESS : EXIT_FAILURE);
}

TEST_F(Unit, TheDiscoveryExtraFollowsTheEnvironmentOnce) {
    for (const ExtraCase &row : extras) {
        EXPECT_EXIT(exit_with_extra(row), testing::ExitedWithCode(EXIT_SUCCESS), "") << row.extra;
    }
}

std::string content_of(const char *path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST_F(Unit, TextsThatAreTooLongAreLeftOutOrCut) {
    constexpr size_t longest_model = 8190;
    for (const size_t length : {longest_model, longest_model + 1}) {
        remove("/tmp/discovery_full_model.txt");
        const std::string model(length, 'm');
        for (char **text : {&server.identity.fw_version, &server.identity.serial, &server.identity.oem_serial,
                            &server.identity.channels, &server.identity.easy_swap_id}) {
            *text = g_strdup("x");
        }
        server.identity.model = g_strdup(model.c_str());
        compute_static_discovery(&server);
        identity_clear(&server.identity);
        EXPECT_EQ(content_of("/tmp/discovery_full_model.txt"), length == longest_model ? "D" + model : "D_ND");
        EXPECT_EQ(strlen(static_discovery_text()), 8191u);
    }
}

TEST_F(Unit, AFileIsNotWrittenThroughALink) {
    const char *path = "/tmp/discovery_link.txt";
    remove(path);
    ASSERT_EQ(symlink("/tmp/elsewhere", path), 0);
    write_file_once(path, "text");
    EXPECT_EQ(recorded, Texts{"error writing on /tmp/discovery_link.txt"});
    EXPECT_NE(access("/tmp/elsewhere", F_OK), 0);
    remove(path);
}

}  // namespace
