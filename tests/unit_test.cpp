/* What no request, datagram or signal can reach: functions called in the wrong order or without their arguments, events
 * of kinds that nobody makes, texts longer than any device has. The real functions, with the real platform library. */
#include <algorithm>
#include <cstdarg>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include <kesto/log.h>

#include "common/access_private.h"
#include "common/bus_event.h"
#include "harness/recording.h"
#include "harness/texts.h"
#include "main/lifecycle.h"
#include "net/device/discovery_extra.h"
#include "net/device/identity.h"
#include "net/device/static_discovery.h"
#include "net/notification/notification.h"
#include "net/records/client.h"
#include "net/records/server.h"
#include "net/requests/data_access.h"
#include "net/requests/rights.h"
#include "net/sessions/authentication.h"
#include "net/sessions/connections.h"
#include "net/sessions/login.h"
#include "net/sessions/release.h"
#include "net/start/network_thread.h"
#include "net/transport/bus.h"
#include "net/transport/frame.h"

static Texts recorded;

// Keeps the message, without the line's prefix and end; of "file:function:line - what" only what stands behind the
// dash.
[[gnu::format(printf, 1, 2)]] static void record(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    g_autofree char *line = g_strdup_vprintf(format, arguments);
    va_end(arguments);
    keep_recording(line);
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
    Client *client = client_new();  // in the table, and the handle's
    const CodecHandle codec{proto_new()}, stray_codec{proto_new()};
    Proto *const handle = codec.get(), *const stray = stray_codec.get();

    Unit() {
        _console_debug = 1;
        _kesto_log_printf = record;
        recorded.clear();
        priv.mq = bus_event_queue_new();
        process.priv = &priv;
        server.owner = &process;
        server.clients = g_hash_table_new_full(g_str_hash, g_str_equal, nullptr, nullptr);
        client->cl_server = &server;
        client->cl_id = g_strdup("panel");
        client_insert(&server, client);
        proto_set_private(handle, client);
    }
    ~Unit() override {
        bus_connection = nullptr;
        g_hash_table_foreach_remove(server.clients, client_free_callback, nullptr);
        g_hash_table_unref(server.clients);
        identity_clear(&server.identity);
        g_async_queue_unref(priv.mq);
    }
    void push(uint32_t kind, uint32_t command = 0) {
        BusEvent *event = bus_event_new(static_cast<BusEventKind>(kind));
        event->command.command = command;
        bus_event_push(priv.mq, event);
    }
    // One that no call may reach.
    void pretend_bus() { bus_connection = reinterpret_cast<GDBusConnection *>(this); }
};

TEST_F(Unit, WithoutAStartThereIsNothingToStopAndNoQueue) {
    process.priv = nullptr;
    EXPECT_EQ(kesto_access_stop(&process), -1);
    kesto_access_net_stop(nullptr);
    kesto_access_net_stop(&process);
    EXPECT_EQ(kesto_access_net_start(nullptr), nullptr);
    server_destroy();
    EXPECT_EQ(server_mq_timer(nullptr, 1, nullptr), -1);
    EXPECT_EQ(server_mq_timer(nullptr, 1, &server), 0);
    EXPECT_EQ(recorded, (Texts{"do nothing for stop", "do nothing for stop", "user_data cast NULL",
                               "arg == NULL not supported", "priv->mq == NULL"}));
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
                               "DISPACH CHANGE TO ALL CLIENTS", "not valid client event (panel) for key 'panel'",
                               "broadcast to 0 client", "request to stop"}));
    EXPECT_EQ(g_async_queue_length(priv.mq), 1);
}

TEST_F(Unit, ABroadcastPassesByWhomItCannotReach) {
    char key[] = "panel";
    BroadcastContext without_proto = {}, context = {.proto = handle, .source = nullptr, .count = 0};
    client_notify(key, client, nullptr);
    client_notify(key, nullptr, &context);
    client_notify(key, client, &context);
    client->cl_events = zsock_new(ZMQ_PUB);
    client->cl_destroy = 1;
    client_notify(key, client, &context);
    client->cl_destroy = 0;
    client_notify(key, client, &without_proto);
    EXPECT_EQ(recorded, (Texts{"not valid param", "not valid client for key 'panel'",
                               "not valid client event (panel) for key 'panel'",
                               "client is mark to be destroyed (panel) for key 'panel'", "not valid proto"}));
    client_notify(key, client, &context);
    EXPECT_EQ(recorded.back(), "avoid to notify empty message");
}

// In the place of CZMQ's monitor: reports an event that nobody asked for and waits for its end.
static void stray_monitor(zsock_t *pipe, void *) {
    zsock_signal(pipe, 0);
    zstr_send(pipe, "OPENED");
    free(zstr_recv(pipe));
}

TEST_F(Unit, AMonitorEventNeedsAllItsArgumentsAndAKnownName) {
    auto *loop = reinterpret_cast<zloop_t *>(this);  // only asked whether it is there
    zmq_pollitem_t item = {};
    client_monitor_event(loop, &item, nullptr);
    client_monitor_event(loop, &item, client);
    client->cl_monitor = zactor_new(stray_monitor, nullptr);
    client_monitor_event(nullptr, &item, client);
    client_monitor_event(loop, nullptr, client);
    client_monitor_event(loop, &item, client);
    item.socket = client->cl_monitor;
    client_monitor_event(loop, &item, client);
    EXPECT_EQ(std::erase(recorded, "error in client_monitor_event"), 5U);
    EXPECT_EQ(recorded, (Texts{"client has to be not NULL", "client monitor has to be not NULL",
                               "loop has to be not NULL", "poller has to be not NULL", "socket has to be not NULL",
                               "client monitor event -1", "unmanaged 'OPENED' socket event"}));
}

TEST_F(Unit, ARecordIsReleasedWhateverItLacks) {
    client_free(nullptr, client_free_known);
    g_hash_table_remove(server.clients, "panel");
    client->cl_cmds_item.socket = this;
    client_free(client, client_free_known);
    EXPECT_EQ(recorded,
              (Texts{"client free cmd port = -1, event port -1 (type: 1)", "free cl_cmds poller", "loop unknown",
                     "remove cl_id from list of known client", "strange error removing client: panel", "free cl_id"}));
}

TEST_F(Unit, ALoginNeedsAClientWithAnId) {
    Client *nameless = client_new();
    EXPECT_EQ(client_authenticate(nameless, {}), nullptr);
    pretend_bus();
    EXPECT_EQ(client_authenticate(nullptr, {}), nullptr);
    EXPECT_EQ(client_authenticate(nameless, {}), nullptr);
    EXPECT_EQ(nameless->cl_destroy, 0u);
    EXPECT_EQ(server_auth_callback(nullptr, nullptr, nullptr, 1, 0, 0, 0, nullptr), nullptr);
    uint32_t hide = 1;
    client_action_get_login_info_callback(nullptr, &hide);
    EXPECT_EQ(hide, 0u);
    EXPECT_EQ(recorded, (Texts{"dbus connection missing", "client is null", "client->cl_id is null",
                               "server_auth_callback: (null) (null) 1 0 0 0 NULL", "NULL pointer p",
                               "missing client from client_action_get_login_info_callback"}));
    client_free(nameless, client_free_local);
}

TEST_F(Unit, ALoginCompletesTheRecordThatItFindsAndReplacesAMarkedOne) {
    zsock_t *service = zsock_new_rep("@inproc://login"), *panel = zsock_new_req(">inproc://login");
    zmq_pollitem_t item = {.socket = zsock_resolve(service), .fd = 0, .events = ZMQ_POLLIN, .revents = 0};
    const auto ask = [&] {
        recorded.clear();
        zstr_send(panel, "\n\a\n\005panel");  // who asks, and nothing else
        server_auth(nullptr, &item, &server);
        free(zstr_recv(panel));
    };
    const auto said = [](const Texts &lines) {
        return std::search(recorded.begin(), recorded.end(), lines.begin(), lines.end()) != recorded.end();
    };
    [[maybe_unused]] g_autofree char *key = g_steal_pointer(&client->cl_id);
    client->cl_server = nullptr;
    ask();
    EXPECT_TRUE(said({"login known client: panel", "set srv", "set id"}));
    client->cl_destroy = 1;
    ask();
    EXPECT_TRUE(said({"login known client that is marked to be removed before!!!!, so free client before"}));
    EXPECT_EQ(recorded.back(), "[AUTH] > zmq_msg_send");
    EXPECT_EQ(g_hash_table_size(server.clients), 1U);
    zsock_destroy(&panel);
    zsock_destroy(&service);
}

TEST_F(Unit, DataAccessNeedsAKeyAClientAndABus) {
    const char *const keys[] = {"/k"}, *const values[] = {"v"};
    EXPECT_EQ(data_read_callback(handle, 0, "/k"), nullptr);
    EXPECT_EQ(data_write_callback(handle, 0xA, "/k", "v"), -1);
    EXPECT_EQ(data_multiwrite_callback(handle, 1, keys, values, nullptr, nullptr), -1);
    pretend_bus();
    EXPECT_EQ(data_read_callback(stray, 0, "/k"), nullptr);
    EXPECT_EQ(data_multiwrite_callback(stray, 1, keys, values, nullptr, nullptr), -1);
    uint32_t count = 7;
    char *list[] = {nullptr}, **results = list;
    EXPECT_EQ(data_multiwrite_callback(handle, 0, keys, values, &count, &results), 0);
    EXPECT_EQ(data_multiwrite_callback(handle, 1, nullptr, values, nullptr, nullptr), -1);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(results, nullptr);
    EXPECT_EQ(recorded, (Texts{"dbus connection missing", "write k=/k, v=v, t=0xA", "dbus connection missing",
                               "multiwrite autorize all keys", "dbus connection missing", "not autorized",
                               "NULL client", "nothing to write"}));
}

TEST_F(Unit, NoCallBeginsOnceAStopIsQueued) {
    pretend_bus();
    push(BUS_EVENT_STOP);
    EXPECT_EQ(data_read_callback(handle, 0, "/k"), nullptr);
    EXPECT_EQ(server_load_identity(&server), 0);
    EXPECT_EQ(server_mq_timer(nullptr, 1, &server), -1);
    EXPECT_EQ(recorded.front(), "unable to call method for DBUS datad proxy: the service is stopping");
}

TEST_F(Unit, AForeignTextThatIsNotUtf8FailsLikeACallThatCouldNotBeMade) {
    pretend_bus();
    const char *const broken[] = {"/\xff"};
    EXPECT_EQ(data_read_callback(handle, 0, broken[0]), nullptr);
    EXPECT_EQ(data_write_callback(handle, 1, "/k", broken[0]), -1);
    EXPECT_EQ(data_multiwrite_callback(handle, 1, broken, broken, nullptr, nullptr), -1);
    EXPECT_EQ(recorded.front(), "unable to call method for DBUS datad proxy: the text is not UTF-8");
    EXPECT_EQ(recorded.back(), "DBUS datad Write method error: the text is not UTF-8 (panel)");
}

TEST_F(Unit, AnAuthorizationNeedsAKeyAndAKnownOperation) {
    EXPECT_EQ(key_authorized(stray, PROTO_OPERATION_READ, "/k", 0), 0);
    EXPECT_EQ(key_authorized(handle, PROTO_OPERATION_WRITE, "/Device/Config/EASY_SWAP_ID", 0), 1);
    EXPECT_EQ(key_authorized(handle, PROTO_OPERATION_READ, nullptr, 0), 0);
    EXPECT_EQ(key_authorized(handle, PROTO_OPERATION_READ, "", 0), 0);
    EXPECT_EQ(key_authorized(handle, 3, "/k", 0), 0);
}

// It is fixed as long as a process lives, so each has one of its own.
static void expect_extra(const char *enable_4221, const char *has_lumaversa, const std::string &extra) {
    setenv("ENABLE4221", enable_4221, 1);
    setenv("HAS_LUMAVERSA", has_lumaversa, 1);
    EXPECT_EXIT(_exit(discovery_extra() == extra ? 0 : 1), testing::ExitedWithCode(0), "") << enable_4221;
}

TEST_F(Unit, TheDiscoveryExtraFollowsTheEnvironment) {
    expect_extra("", "", "4221=ON");
    expect_extra("1", "on", "4221=ON,LUMAVERSA=ON");
    expect_extra("ON", "yes", "4221=OFF");
}

TEST_F(Unit, TextsThatAreTooLongAreLeftOutOrCut) {
    constexpr size_t longest_model = 8190;
    const char *path = "/tmp/discovery_full_model.txt";
    DeviceIdentity &identity = server.identity;
    for (const size_t length : {longest_model, longest_model + 1}) {
        remove(path);
        const std::string model(length, 'm');
        for (char **text :
             {&identity.fw_version, &identity.serial, &identity.oem_serial, &identity.channels, &identity.easy_swap_id})
            *text = g_strdup("x");
        identity.model = g_strdup(model.c_str());
        compute_static_discovery(&server);
        identity_clear(&identity);
        g_autofree char *content = nullptr;
        g_file_get_contents(path, &content, nullptr, nullptr);
        EXPECT_EQ(std::string(content), length == longest_model ? "D" + model : "D_ND");
        EXPECT_EQ(strlen(static_discovery_text()), 8191u);
    }
}

TEST_F(Unit, AFileIsNotWrittenThroughALink) {
    ASSERT_EQ(symlink("/tmp/elsewhere", "/tmp/discovery_link.txt"), 0);
    write_file_once("/tmp/discovery_link.txt", "text");
    EXPECT_EQ(recorded, Texts{"error writing on /tmp/discovery_link.txt"});
    EXPECT_NE(access("/tmp/elsewhere", F_OK), 0);
    remove("/tmp/discovery_link.txt");
}
