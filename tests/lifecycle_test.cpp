// How the service starts, what ends it, and what it leaves behind.
#include <arpa/inet.h>
#include <csignal>
#include <filesystem>
#include <string>
#include <sys/socket.h>
#include <vector>

#include <gtest/gtest.h>

#include "harness/discovery.h"
#include "harness/gateway.h"
#include "harness/port.h"
#include "harness/remote_client.h"

namespace {

constexpr const char *not_registered = "impossible to register dbus object\n";
constexpr Exit good_end = {.status = 0};

GatewayOptions not_waiting(Environment environment = {}) {
    return {.environment = std::move(environment), .wait_until_up = false};
}

TEST(Start, GoesThroughItsStepsInOrder) {
    Gateway gateway;
    gateway.service().rewind();
    gateway.expect_log({"slotid: 0 ?", "[NET] access first reading settings, it can fail", "result: 1",
                        "[NET] setting private to *", "COMPUTE STATIC DISCOVERY", "[NET] auth port 60000 60000",
                        "zsys_catch_interrupts"});
    gateway.service().rewind();
    gateway.expect_log({"started self=*,priv=*,net=*..."});
    EXPECT_TRUE(gateway.bus().has_owner("com.quillmont.kesto.Access"));
}

TEST(Start, WaitsForNoDevice) {
    Gateway gateway({.with_device = false});
    gateway.service().rewind();
    gateway.expect_log({"result: 0", "NOT POSSIBLE COMPUTE STATIC DISCOVERY", "zsys_catch_interrupts"});
    gateway.start_device();
    Discovery().send(discovery_request("panel-1"));
    gateway.expect_log({"[DISCOVERY] received id=[panel-1]"});
}

struct SlotCase {
    const char *id, *log, *mark;
};
constexpr SlotCase slots[] = {
    {"0",  "slotid: 0 ?",                          "?"},
    {"1",  "slotid: 1 -",                          "-"},
    {"2",  "slotid: 2 D",                          "D"},
    {"3",  "slotid: 3 +",                          "+"},
    {"4",  "not supported retcode for slotid: 4",  "?"},
    {"-1", "not supported retcode for slotid: -1", "?"},
};

TEST(Start, PublishesTheMarkOfItsSlot) {
    for (const SlotCase &row : slots) {
        SCOPED_TRACE(row.id);
        Gateway gateway({.environment = {{"KESTO_SLOT_ID", row.id}}});
        gateway.service().rewind();
        gateway.expect_log({row.log});
        Discovery discovery;
        discovery.send(discovery_request("panel-1"));
        EXPECT_EQ(discovery.receive().fields.at(field_slot), row.mark);
    }
}

struct VerboseCase {
    const char *setting;
    bool second_line;
};
constexpr VerboseCase verbose_settings[] = {
    {"1",   true },
    {"on",  true },
    {"yes", true },
    {"0",   false},
    {"",    false},
    {"ON",  false},
};

constexpr const char *verbose = "czmq verbose loop VERBOSE";

TEST(Start, TracesTheLoopWhateverTheSettingSays) {
    for (const VerboseCase &row : verbose_settings) {
        SCOPED_TRACE(row.setting);
        Gateway gateway({.environment = {{"CZMQ_VERBOSE_LOOP", row.setting}}});
        gateway.service().rewind();
        gateway.expect_log({std::string("czmq verbose loop: ") + row.setting});
        if (row.second_line) gateway.expect_log({verbose, "COMPUTE STATIC DISCOVERY"});
        else gateway.service().expect_no_log_before(verbose, "COMPUTE STATIC DISCOVERY");
        gateway.expect_log({"D: *zloop polling*"});
    }
}

TEST(Start, DoesNotTraceTheLoopUnasked) {
    Gateway gateway;
    gateway.service().send_signal(SIGTERM);
    EXPECT_EQ(gateway.service().wait_exit(), good_end);
    EXPECT_EQ(gateway.service().standard_output(), "");
}

struct AddressCase {
    const char *setting, *auth_port;
};
constexpr AddressCase addresses[] = {
    {"",          "ZMQ:60000"},
    {"0.0.0.0",   "ZMQ:60000"},
    {"127.0.0.1", "ZMQ:0"    },
};

TEST(Start, BindsToTheAddressThatIsSet) {
    for (const AddressCase &row : addresses) {
        SCOPED_TRACE(row.setting);
        Gateway gateway({.environment = {{"ZMQ_ACCESS_IP", row.setting}}});
        EXPECT_EQ(RemoteClient("panel-1").log_in(), (Ports{62001, 63001}));
        Discovery discovery;
        discovery.send(discovery_request("panel-1"));
        EXPECT_EQ(discovery.receive().fields.at(field_auth_port), row.auth_port);
    }
}

// The service's last words in an orderly end. Those of the main thread stand between those of the network thread.
void expect_network_teardown(Gateway &gateway) {
    gateway.expect_log({"destroy srv", "stop timer", "Stop auth destroy socket", "Stop s_loop poller and destroy",
                        "zsys_shutdown", "zmq thread down", "net thread joined...", "stopped access"});
}

void expect_released(Gateway &gateway) {
    EXPECT_FALSE(gateway.bus().has_owner("com.quillmont.kesto.Access"));
    const TakenPort discovery(SOCK_DGRAM, 8004), authentication(SOCK_STREAM, 60000);
}

struct SignalCase {
    const char *why;
    std::vector<int> signals;
};
const SignalCase stop_signals[] = {
    {"SIGTERM",               {SIGTERM}                 },
    {"SIGINT",                {SIGINT}                  },
    {"SIGTERM again",         {SIGTERM, SIGTERM}        },
    {"SIGINT while stopping", {SIGTERM, SIGINT, SIGTERM}},
};

TEST(Stop, ComesOrderlyByASignal) {
    for (const SignalCase &row : stop_signals) {
        SCOPED_TRACE(row.why);
        Gateway gateway;
        for (const int signal : row.signals) gateway.service().send_signal(signal);
        gateway.expect_log({"end zmq mainloop: 0"});
        expect_network_teardown(gateway);
        EXPECT_EQ(gateway.service().wait_exit(), good_end);
        expect_released(gateway);
    }
}

// Between CZMQ's giving its handlers back and the process's end there is a moment in which a signal could still kill.
TEST(Stop, IsNotSpoiltBySignalsThatKeepComing) {
    constexpr int rounds = 20;
    for (int round = 0; round < rounds; round++) {
        Gateway gateway({.with_device = false});
        for (const auto end = deadline(); gateway.service().running() && Clock::now() < end;)
            gateway.service().send_signal(SIGTERM);
        EXPECT_EQ(gateway.service().wait_exit(), good_end);
    }
}

TEST(Stop, WaitsOutASignalDuringTheStart) {
    Gateway gateway(not_waiting());
    gateway.expect_log({"[NET] access first reading settings, it can fail"});
    gateway.service().send_signal(SIGTERM);
    gateway.expect_log({"end zmq mainloop: 0"});
    expect_network_teardown(gateway);
    EXPECT_EQ(gateway.service().wait_exit(), good_end);
}

// The platform stops the service when the bus goes: the stop travels through the queue.
TEST(Stop, ComesFromThePlatform) {
    Gateway gateway({.with_device = false});
    gateway.bus().end();
    gateway.expect_log({"wait stop zmq"});
    gateway.service().rewind();
    gateway.expect_log({"request to stop", "end zmq mainloop: -1"});
    expect_network_teardown(gateway);
    EXPECT_EQ(gateway.service().wait_exit(), good_end);
}

TEST(Stop, ReleasesSessionsWithoutTellingTheAudioService) {
    Gateway gateway;
    RemoteClient plain("panel-1"), watched("panel-2");
    plain.log_in();
    watched.log_in({.monitor = true});
    gateway.device().expect_call("ClientAuthenticated", "panel-1");
    gateway.device().expect_call("ClientAuthenticated", "panel-2");
    gateway.service().send_signal(SIGTERM);
    gateway.expect_log({"stop timer", "Stop auth destroy socket", "client_free_callback", "free cl_id",
                        "client_free_callback", "free cl_id", "Stop s_loop poller and destroy", "stopped access"});
    EXPECT_EQ(gateway.service().wait_exit(), good_end);
    gateway.bus().call({"com.quillmont.kesto.Data", "/com/quillmont/kesto/Data", "com.quillmont.kesto.Data.Service"},
                       "Read", g_variant_new("(us)", 0x2000, "/after/the/end"));
    gateway.device().expect_no_log_before("ClientDeauthenticated*", "Read (uint32 8192, '/after/the/end')");
}

struct FatalCase {
    const char *why;
    int type;  // of the socket that holds the port; 0: none
    uint16_t port;
    Environment environment;
    const char *log, *not_before;
};
constexpr const char *no_udp_port = "*:kesto_access_net_start:* - bind on udp socket";
constexpr const char *no_tcp_port = "error auth socket";
const FatalCase fatal_starts[] = {
    {"UDP port taken",  SOCK_DGRAM,  8004,  {},                                 no_udp_port, "[NET] auth port*"     },
    {"TCP port taken",  SOCK_STREAM, 60000, {},                                 no_tcp_port, "zsys_catch_interrupts"},
    {"foreign address", 0,           0,     {{"ZMQ_ACCESS_IP", "203.0.113.9"}}, no_tcp_port, "zsys_catch_interrupts"},
    {"no address",      0,           0,     {{"ZMQ_ACCESS_IP", "%s%n*"}},       no_tcp_port, "zsys_catch_interrupts"},
};

TEST(Start, EndsTheServiceOrderlyWhenTheNetworkCannotBeHad) {
    for (const FatalCase &row : fatal_starts) {
        SCOPED_TRACE(row.why);
        std::optional<TakenPort> taken;
        if (row.type != 0) taken.emplace(row.type, row.port);
        Gateway gateway(not_waiting(row.environment));
        gateway.service().expect_no_log_before(row.not_before, row.log);
        gateway.service().expect_no_log_before(row.not_before, "destroy srv");
        gateway.expect_log({"zsys_shutdown", "zmq thread down", "net thread joined...", "stopped access"});
        EXPECT_EQ(gateway.service().wait_exit(), good_end);
    }
}

TEST(Start, IsRefusedWithoutABus) {
    for (const char *debug : {"0", "1"}) {
        SCOPED_TRACE(debug);
        Gateway gateway(not_waiting({
            {"KESTO_DEBUG",              debug                   },
            {"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent"}
        }));
        EXPECT_EQ(gateway.service().wait_exit(), Exit{.status = 255});
        EXPECT_TRUE(gateway.service().standard_error().ends_with(not_registered));
        EXPECT_EQ(gateway.service().standard_error().find("stopped access"), std::string::npos);
    }
}

TEST(Start, IsRefusedWhenTheNameIsTaken) {
    GatewayOptions options = not_waiting({
        {"KESTO_DEBUG", "0"}
    });
    options.with_service = false;
    Gateway gateway(options);
    gateway.bus().take_name("com.quillmont.kesto.Access");
    gateway.start_service();
    EXPECT_EQ(gateway.service().wait_exit(), Exit{.status = 255});
    EXPECT_EQ(gateway.service().standard_error(), not_registered);
}

TEST(CommandLine, UnknownOptionEndsTheServiceBeforeItIsSeen) {
    for (const char *option : {"--bogus", "-x", "--version"}) {
        SCOPED_TRACE(option);
        Gateway gateway({.arguments = {option}, .wait_until_up = false});
        gateway.service().allow_complaint("option parsing failed: Unknown option " + std::string(option));
        EXPECT_NE(gateway.service().wait_exit(), good_end);
        gateway.expect_log({"*option parsing failed: Unknown option " + std::string(option)});
        EXPECT_EQ(gateway.service().standard_error().find("slotid"), std::string::npos);
    }
}

TEST(CommandLine, HelpIsPrintedAndNothingStarted) {
    Gateway gateway({.arguments = {"--help"}, .wait_until_up = false});
    EXPECT_EQ(gateway.service().wait_exit(), good_end);
    EXPECT_TRUE(gateway.service().standard_output().starts_with("Usage:\n  kesto-access [OPTION"));
    EXPECT_EQ(gateway.service().standard_error(), "");
}

TEST(Log, IsSilentUnlessSwitchedOn) {
    for (const char *setting : {"0", ""}) {
        SCOPED_TRACE(setting);
        Gateway gateway(not_waiting({
            {"KESTO_DEBUG", setting}
        }));
        RemoteClient panel("panel-1");
        panel.log_in();
        gateway.call("SpeakerPresetLoadedDispatch");
        gateway.service().send_signal(SIGTERM);
        EXPECT_EQ(gateway.service().wait_exit(), good_end);
        EXPECT_EQ(gateway.service().standard_output() + gateway.service().standard_error(), "");
    }
}

TEST(Log, NamesProgramProcessAndPlace) {
    Gateway gateway;
    const std::string pid = std::to_string(gateway.service().pid());
    const std::string prefix = "[kesto-access|" + pid + std::string(pid.size() < 4 ? 4 - pid.size() : 0, ' ') + "] {";
    gateway.service().send_signal(SIGTERM);
    gateway.service().wait_exit();
    const std::string log = '\n' + gateway.service().standard_error();
    EXPECT_NE(log.find('\n' + prefix + "src/access/main/main.cpp:"), std::string::npos);
    EXPECT_NE(log.find('\n' + prefix + "src/access/net/server.cpp:"), std::string::npos);
}

}  // namespace
