/* What the stand-in library does of itself and the service cannot be made to show: the dump of a crash, a log whose
 * reader is slow, what ends a process, and what it has when it gets its name. */
#include <alloca.h>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <future>
#include <latch>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include <kesto/device.h>
#include <kesto/log.h>
#include <kesto/process.h>

#include "harness/bus.h"

namespace fs = std::filesystem;
using testing::KilledBySignal;

TEST(CrashDumpDeathTest, IsItsOwnersFollowsNoLinkAndLeavesTheSignalItsEffect) {
    EXPECT_EXIT((init_fault_dump("/tmp/dump"), raise(SIGABRT)), KilledBySignal(SIGABRT), "");
    EXPECT_EQ(fs::status("/tmp/dump").permissions(), fs::perms::owner_read | fs::perms::owner_write);
    std::error_code is_there;
    fs::create_symlink("/tmp/elsewhere", "/tmp/link", is_there);  // so that the dump goes to standard error
    EXPECT_EXIT((init_fault_dump("/tmp/link"), raise(SIGTRAP)), KilledBySignal(SIGTRAP), "signal: 5 SIGTRAP");
    const auto use_up_stack = [] {
        for (;;) *static_cast<volatile char *>(alloca(4096)) = 0;
    };
    EXPECT_DEATH((init_fault_dump("/tmp/link"), use_up_stack()), "signal: 11 SIGSEGV");
}

TEST(Log, KeepsTheMessagesOfTwoThreadsWholeInAFullPipe) {
    const std::string texts[] = {std::string(5'000'000, 'a'), std::string(5'000'000, 'b')};
    const int standard_error = dup(STDERR_FILENO);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    fcntl(ends[1], F_SETPIPE_SZ, 4096);  // so that there are many pieces
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    std::latch begin(3);  // both are there before the pipe is read
    const auto log = [&](const std::string &text) { begin.arrive_and_wait(), _kesto_log_printf("%s", text.c_str()); };
    auto first = std::async(std::launch::async, log, texts[0]), second = std::async(std::launch::async, log, texts[1]);
    auto end = std::async(std::launch::async, [&] { first.get(), second.get(), dup2(standard_error, STDERR_FILENO); });
    begin.arrive_and_wait();
    std::string seen;
    char piece[4096];
    for (ssize_t n = 0; (n = read(ends[0], piece, sizeof piece)) > 0;) seen.append(piece, static_cast<size_t>(n));
    EXPECT_TRUE(seen == texts[0] + texts[1] || seen == texts[1] + texts[0])
        << seen.size() << " bytes, first " << seen.find_first_not_of(seen[0]) << " equal ones";
}

static GDBusConnection *own;  // GIO's only one in this program, which is the process's
static int pings;

static void ask_bus(const char *method, GVariant *arguments) {
    GVariant *reply = g_dbus_connection_call_sync(own, the_bus.name, the_bus.path, the_bus.interface, method, arguments,
                                                  nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    g_clear_pointer(&reply, g_variant_unref);
}

// Takes the object when the name is asked for, if it can still be had then.
static GDBusMessage *take_object(GDBusConnection *connection, GDBusMessage *message, gboolean, void *) {
    constexpr GDBusSubtreeVTable nothing = {};
    if (g_strcmp0(g_dbus_message_get_member(message), "RequestName") == 0)
        g_dbus_connection_register_subtree(connection, access_object.path, &nothing, G_DBUS_SUBTREE_FLAGS_NONE, nullptr,
                                           nullptr, nullptr);
    return message;
}

static void answer_ping(GDBusMethodInvocation *call) { g_dbus_method_invocation_return_value(call, nullptr), ++pings; }
static constexpr KestoDbusMethod methods[] = {
    {"Ping",                 answer_ping, "<method name='%s'/>"},
    {                     }
};

static int end_at_once(KestoProcess *) { return kesto_mainloop_stop(), 0; }
static int lose_name(KestoProcess *) { return ask_bus("ReleaseName", g_variant_new("(s)", access_object.name)), 0; }
static int lose_bus(KestoProcess *) { return g_dbus_connection_close_sync(own, nullptr, nullptr) - 1; }

static int get_call_while_stopping(KestoProcess *) {
    g_dbus_connection_call(own, g_dbus_connection_get_unique_name(own), access_object.path, access_object.interface,
                           "Ping", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
    ask_bus("GetId", nullptr);  // once this is answered the call has come in
    return 0;
}

TEST(Process, HasItsObjectBeforeItsNameAndEndsWithoutABusOrANameWhenAllCallsAreAnswered) {
    for (const auto start : {end_at_once, lose_name, lose_bus}) {
        SCOPED_TRACE(start == end_at_once ? "a stop before the loop" : start == lose_name ? "no name" : "no bus");
        Bus bus;
        setenv("DBUS_SESSION_BUS_ADDRESS", bus.address().c_str(), 1);
        own = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
        g_dbus_connection_add_filter(own, take_object, nullptr, nullptr);
        KestoProcess *process = kesto_process_new(access_object.name, access_object.path, access_object.interface, 0);
        ASSERT_NE(process, nullptr) << "the object was not there yet when the name was asked for";
        const KestoOps ops = {nullptr, get_call_while_stopping, start, nullptr};
        kesto_process_add_ops(process, &ops);
        kesto_process_add_dbus_methods(process, methods);
        const auto complain = [](void *) { return ADD_FAILURE() << "it does not end", kesto_mainloop_stop(), 0; };
        const guint limit = g_timeout_add(static_cast<guint>(event_timeout().count()), complain, nullptr);
        EXPECT_EQ(kesto_process_run(process), 0);
        g_source_remove(limit);
        kesto_process_destroy(&process);
        g_object_unref(own);
    }
    EXPECT_EQ(pings, 2) << "calls answered, where there was a bus";
}
