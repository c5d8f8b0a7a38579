/* The service used as no client, device or stand-in uses it, but as another platform library or a later change might: a
 * stop without a start, a callback without its handle or arguments, a text that is not UTF-8, an event of an unknown
 * kind. The tests call the service's own functions. */
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <kesto/log.h>

#include "common/access_private.h"
#include "common/bus_event.h"
#include "harness/recording.h"
#include "harness/texts.h"
#include "main/lifecycle.h"
#include "net/device/identity.h"
#include "net/notification/notification.h"
#include "net/records/client.h"
#include "net/records/server.h"
#include "net/requests/data_access.h"
#include "net/requests/rights.h"
#include "net/sessions/login.h"
#include "net/sessions/release.h"
#include "net/transport/bus.h"
#include "net/transport/frame.h"

static Texts recorded;
static std::atomic<gint64> clock_step_us = 0;  // how far each look at the clock moves it; 0: the clock is right

// In front of GLib's.
gint64 g_get_monotonic_time() {
    static std::atomic<gint64> moved_us = 0;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count() + (moved_us += clock_step_us);
}

// Keeps the line's message; of "file:function:line - what" only what follows the dash.
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

struct Misuse : testing::Test {
    AccessPrivate priv = {};
    KestoProcess process = {};
    AccessServer server = {};
    Client *client = client_new();  // in the table, and the handle's
    const CodecHandle codec{proto_new()}, codec_without_client{proto_new()};
    Proto *const handle = codec.get(), *const without_client = codec_without_client.get();

    Misuse() {
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
    ~Misuse() override {
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
    // A connection that no call may use.
    void pretend_bus() { bus_connection = reinterpret_cast<GDBusConnection *>(this); }
};

TEST_F(Misuse, AStopWithoutAStartIsRefused) {
    process.priv = nullptr;
    EXPECT_EQ(kesto_access_stop(&process), -1);
}

TEST_F(Misuse, AnEventOfAnUnknownKindIsPassedOverAndOneBehindTheStopIsLeft) {
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

TEST_F(Misuse, ATickDeliversTenEventsHoweverLongTheyTakeAndTheNextOneTheRest) {
    for (int number = 0; number < 14; ++number) push(BUS_EVENT_COMMAND, BUS_COMMAND_SPEAKER_PRESET_LOADED);
    clock_step_us = G_USEC_PER_SEC;
    EXPECT_EQ(server_mq_timer(nullptr, 1, &server), 0);
    EXPECT_EQ(g_async_queue_length(priv.mq), 4);
    EXPECT_EQ(server_mq_timer(nullptr, 1, &server), 0);
    EXPECT_EQ(g_async_queue_length(priv.mq), 0);
    clock_step_us = 0;
    EXPECT_EQ(std::ranges::count(recorded, "DISPACH CHANGE TO ALL CLIENTS"), 14);
}

TEST_F(Misuse, ACallbackWithoutItsHandleOrClientRefuses) {
    const char *const keys[] = {"/k"}, *const values[] = {"v"};
    pretend_bus();
    uint32_t hide = 1;
    client_action_get_login_info_callback(nullptr, &hide);
    EXPECT_EQ(hide, 0U);
    EXPECT_EQ(server_auth_callback(nullptr, nullptr, nullptr, 1, 0, 0, 0, nullptr), nullptr);
    EXPECT_EQ(server_auth_callback(without_client, "root", "vormi", 0, 0, 0, 0, nullptr), nullptr);
    EXPECT_EQ(data_read_callback(without_client, 0, "/k"), nullptr);
    EXPECT_EQ(data_multiwrite_callback(without_client, 1, keys, values, nullptr, nullptr), -1);
    EXPECT_EQ(key_authorized(without_client, PROTO_OPERATION_OTHER, "/k", 0), 0);
    EXPECT_EQ(recorded, (Texts{"missing client from client_action_get_login_info_callback",
                               "server_auth_callback: (null) (null) 1 0 0 0 NULL", "NULL pointer p",
                               "server_auth_callback: root vormi 0 0 0 0 NULL", "not autorized", "NULL client"}));
    _kesto_log_printf = nullptr;
    client_action_get_login_info_callback(nullptr, &hide);  // its message goes nowhere
}

TEST_F(Misuse, NoChangeOfTwoThreadsIsLostInTheCount) {
    const uint32_t before = change_counter_value();
    const auto make_changes = [] {
        for (int i = 0; i < 1'000'000; ++i) change_counter_increment();
    };
    std::thread other(make_changes);
    make_changes();
    other.join();
    EXPECT_EQ(change_counter_value() - before, 2'000'000U);
}

TEST_F(Misuse, ACallbackWithoutItsTextsLeavesNothingInItsResults) {
    const char *const keys[] = {"/k"}, *const values[] = {"v"};
    pretend_bus();
    for (const bool with_keys : {true, false}) {
        uint32_t count = 7;
        char *list[] = {nullptr}, **results = list;
        EXPECT_EQ(data_multiwrite_callback(handle, 1, with_keys ? keys : nullptr, with_keys ? nullptr : values, &count,
                                           &results),
                  -1);
        EXPECT_EQ(count, 0U);
        EXPECT_EQ(results, nullptr);
    }
    EXPECT_EQ(key_authorized(handle, PROTO_OPERATION_READ, nullptr, 0), 0);
}

TEST_F(Misuse, DataAccessNeedsABus) {
    const char *const keys[] = {"/k"}, *const values[] = {"v"};
    EXPECT_EQ(data_read_callback(handle, 0, "/k"), nullptr);
    EXPECT_EQ(data_write_callback(handle, 0xA, "/k", "v"), -1);
    EXPECT_EQ(data_multiwrite_callback(handle, 1, keys, values, nullptr, nullptr), -1);
    EXPECT_EQ(std::ranges::count(recorded, "dbus connection missing"), 3);
}

TEST_F(Misuse, NoCallBeginsOnceAStopIsQueued) {
    pretend_bus();
    push(BUS_EVENT_STOP);
    EXPECT_EQ(data_read_callback(handle, 0, "/k"), nullptr);
    EXPECT_EQ(server_load_identity(&server), 0);
    EXPECT_EQ(server_mq_timer(nullptr, 1, &server), -1);
    EXPECT_EQ(recorded.front(), "unable to call method for DBUS datad proxy: the service is stopping");
}

TEST_F(Misuse, ATextThatIsNotUtf8FailsLikeACallThatCannotBeMade) {
    pretend_bus();
    const char *const broken[] = {"/\xff"};
    EXPECT_EQ(data_read_callback(handle, 0, broken[0]), nullptr);
    EXPECT_EQ(data_write_callback(handle, 1, "/k", broken[0]), -1);
    EXPECT_EQ(data_multiwrite_callback(handle, 1, broken, broken, nullptr, nullptr), -1);
    EXPECT_EQ(recorded.front(), "unable to call method for DBUS datad proxy: the text is not UTF-8");
    EXPECT_EQ(recorded.back(), "DBUS datad Write method error: the text is not UTF-8 (panel)");
}
