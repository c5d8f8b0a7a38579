// How the service starts, what ends it, and what it leaves behind.
#include <algorithm>
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "harness/gateway.h"
#include "harness/port.h"
#include "harness/remote_client.h"

static constexpr const char *service_name = "com.quillmont.kesto.Access";
static constexpr const char *not_registered = "impossible to register dbus object\n";
static constexpr Exit good_end = {.status = 0}, refused_start = {.status = 255};

TEST(Start, TracesTheLoopWhateverTheSettingSays) {
    for (const std::string setting : {"yes", "", "ON"}) {
        SCOPED_TRACE(setting);
        Gateway gateway({.environment = {{"CZMQ_VERBOSE_LOOP", setting}}});
        gateway.service().rewind().expect_log({"czmq verbose loop: " + setting});
        const Texts next = gateway.service().log_until("COMPUTE STATIC DISCOVERY");
        EXPECT_EQ(std::ranges::count(next, "czmq verbose loop VERBOSE"), setting == "yes");
        // The tracing is on the other stream, which has no order with the log.
        gateway.service().rewind().expect_log({"D: *zloop polling*"});
    }
}

// The last messages of an orderly end, some of the network thread and some of the main thread.
static void expect_orderly_end(Gateway &gateway) {
    gateway.expect_log({"destroy srv", "stop timer", "Stop auth destroy socket", "Stop s_loop poller and destroy",
                        "zsys_shutdown", "zmq thread down", "net thread joined...", "stopped access"});
    EXPECT_EQ(gateway.service().wait_exit(), good_end);
}

static constexpr const char *in_the_start = "[NET] access first reading settings, it can fail";
static constexpr const char *up = "zsys_catch_interrupts";
static const struct {
    const char *why, *after;
    std::vector<int> signals;
} stop_signals[] = {
    {"SIGTERM",               up,           {SIGTERM}                 },
    {"SIGINT",                up,           {SIGINT}                  },
    {"SIGINT while stopping", up,           {SIGTERM, SIGINT, SIGTERM}},
    {"SIGTERM in the start",  in_the_start, {SIGTERM}                 },
    {"SIGINT in the start",   in_the_start, {SIGINT}                  },
};

TEST(Stop, ComesOrderlyByASignal) {
    for (const auto &row : stop_signals) {
        SCOPED_TRACE(row.why);
        Gateway gateway({.wait_until_up = false});
        gateway.expect_log({row.after});
        for (const int signal : row.signals) gateway.service().send_signal(signal);
        gateway.expect_log({"end zmq mainloop: 0"});
        expect_orderly_end(gateway);
        EXPECT_EQ(gateway.service().text(STDOUT_FILENO), "");  // the loop's tracing was not asked for
    }
}

// This stop comes through the queue, and from its first message to the end no signal may kill the process. Usually a
// signal could do so only in the moment after CZMQ has taken its handlers back; with ZSYS_SIGHANDLER=false it installs
// none, and the whole time is such a moment.
TEST(Stop, ComesFromThePlatformAndIsNotSpoiltBySignals) {
    Gateway gateway({.with_device = false, .environment = {{"ZSYS_SIGHANDLER", "false"}}});
    gateway.bus().end();
    gateway.expect_log({"destroy srv"});
    constexpr int signals = 5000;  // longer than the process takes for its end
    for (int i = 0; i < signals; i++) gateway.service().send_signal(SIGTERM);
    gateway.service().rewind().expect_log({"wait stop zmq"});
    gateway.service().rewind().expect_log({"request to stop", "end zmq mainloop: -1"});
    expect_orderly_end(gateway);
}

TEST(Start, EndsTheServiceOrderlyWhenItsAddressIsNone) {
    Gateway gateway({.environment = {{"ZMQ_ACCESS_IP", "%s%n*"}}, .wait_until_up = false});
    gateway.expect_log({"error auth socket"});
    EXPECT_EQ(gateway.service().log_until("destroy srv"), Texts{});
    gateway.expect_log({"zsys_shutdown", "zmq thread down", "net thread joined...", "stopped access"});
    EXPECT_EQ(gateway.service().wait_exit(), good_end);
}

TEST(Start, IsRefusedWithoutABusOrItsName) {
    Environment taken_name, no_bus;
    taken_name["KESTO_DEBUG"] = no_bus["KESTO_DEBUG"] = "0";
    no_bus["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=/nonexistent";
    for (const Environment &environment : {taken_name, no_bus}) {
        SCOPED_TRACE(environment.size());
        Gateway gateway({.with_service = false, .environment = environment, .wait_until_up = false});
        gateway.bus().call(the_bus, "RequestName", g_variant_new("(su)", service_name, 0));
        gateway.start_service();
        EXPECT_EQ(gateway.service().wait_exit(), refused_start);
        EXPECT_EQ(gateway.service().text(STDERR_FILENO), not_registered);
    }
}

TEST(Start, TakesAllDescriptorsButTheStandardOnes) {
    for (const char *closed : {"2>&-", "<&- >&- 2>&-"}) {
        Gateway gateway({.prepared_by = std::string("ulimit -Sn 64; exec ") + closed, .wait_until_up = false});
        RemoteClient("panel-1").log_in();
        const std::string error_stream = "/proc/" + std::to_string(gateway.service().pid()) + "/fd/2";
        EXPECT_EQ(std::filesystem::read_symlink(error_stream), "/dev/null") << closed;
        char greeting = 0;
        for (int i = 0; i < 64; i++)
            EXPECT_EQ(recv(connected_socket(SOCK_STREAM, authentication_port), &greeting, 1, 0), 1) << i;
    }
}

static constexpr const char *crash_dump = "/tmp/crash_access.dump";
static constexpr struct {
    const char *option, *said;
    bool good;
} options[] = {
    {"--bogus", "option parsing failed: Unknown option --bogus", false},
    {"--help",  "Usage:\n  kesto-access [OPTION",                true },
};

TEST(CommandLine, EndsTheServiceBeforeItIsSeen) {
    std::filesystem::remove(crash_dump);
    for (const auto &row : options) {
        SCOPED_TRACE(row.option);
        Gateway gateway({.arguments = {row.option}, .wait_until_up = false});
        EXPECT_EQ(gateway.service().wait_exit() == good_end, row.good);
        EXPECT_THAT(gateway.service().text(row.good ? STDOUT_FILENO : STDERR_FILENO), testing::HasSubstr(row.said));
        EXPECT_THAT(gateway.service().text(STDERR_FILENO), testing::Not(testing::HasSubstr("slotid")));
        EXPECT_FALSE(std::filesystem::exists(crash_dump));
    }
}

TEST(Log, IsSilentUnlessSwitchedOn) {
    for (const char *setting : {"0", ""}) {
        SCOPED_TRACE(setting);
        Gateway gateway({.environment = {{"KESTO_DEBUG", setting}}, .wait_until_up = false});
        RemoteClient("panel-1").log_in();
        gateway.call("SpeakerPresetLoadedDispatch");
        gateway.service().expect_orderly_end();
        EXPECT_EQ(gateway.service().text(STDOUT_FILENO) + gateway.service().text(STDERR_FILENO), "");
    }
}

TEST(Log, NamesProgramProcessAndPlace) {
    Gateway gateway;
    const std::string pid = std::to_string(gateway.service().pid());
    const std::string prefix = "\n[kesto-access|" + pid + std::string(pid.size() < 4 ? 4 - pid.size() : 0, ' ') + "] {";
    const std::string log = '\n' + gateway.service().text(STDERR_FILENO);
    for (const char *place : {"src/access/main/main.cpp:", "src/access/net/start/network_thread.cpp:"})
        EXPECT_NE(log.find(prefix + place), log.npos) << place;
}
