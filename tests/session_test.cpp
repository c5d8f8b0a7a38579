// The sockets of a session: their ports and options, and what becomes of them.
#include <algorithm>
#include <csignal>
#include <string>
#include <sys/socket.h>
#include <vector>

#include <gtest/gtest.h>

#include "harness/discovery.h"
#include "harness/gateway.h"
#include "harness/port.h"
#include "harness/remote_client.h"

namespace {

using Texts = std::vector<std::string>;
constexpr const char *a_key = "/Device/Config/Name";
const LoginOptions unconnected = {.connect = false};

TEST(Session, PortsAreCountedUpAndNeverGivenBack) {
    Gateway gateway;
    RemoteClient first("panel-1"), second("panel-2"), third("panel-3");
    EXPECT_EQ(first.log_in(), (Ports{62001, 63001}));
    EXPECT_EQ(second.log_in(), (Ports{62002, 63002}));
    second.log_out();
    EXPECT_EQ(third.log_in(), (Ports{62003, 63003}));
    EXPECT_EQ(second.log_in(), (Ports{62004, 63004}));
    EXPECT_EQ(first.log_in(), (Ports{62001, 63001}));
    for (RemoteClient *client : {&first, &second, &third}) EXPECT_EQ(client->read(a_key).status(), wire::STATUS_OK);
}

TEST(Session, PortsRotateAtTheEndOfTheirRanges) {
    constexpr int sessions = 998;
    Gateway gateway;
    RemoteClient panel("panel-1");
    for (int i = 1; i <= sessions; i++) {
        ASSERT_EQ(panel.log_in(unconnected), (Ports{62000 + i, 63000 + i}));
        panel.log_out();
    }
    gateway.service().expect_no_log_before("rotate *", "[AUTH] cmd=62997");
    gateway.expect_log({"rotate cmd port", "rotate event port", "[AUTH] cmd=62998", "[AUTH] events=63998"});
    EXPECT_EQ(panel.log_in(unconnected), (Ports{62002, 63002}));
    panel.log_out();
    EXPECT_EQ(panel.log_in(unconnected), (Ports{62003, 63003}));
}

TEST(Session, LocalIdHasPortsOfItsOwn) {
    Gateway gateway;
    RemoteClient local("@localhost");
    for (int session = 0; session < 2; session++) {
        EXPECT_EQ(local.log_in({.monitor = true}), (Ports{62000, 63000}));
        EXPECT_EQ(local.read(a_key).status(), wire::STATUS_OK);
        gateway.service().expect_no_log_before("configure cmd HEARTBEAT", "[AUTH] events=63000");
        gateway.expect_log({"monitor not done because requested in this way: 1 '@localhost'"});
        local.log_out();
        wait_until_closed(62000);
        wait_until_closed(63000);
    }
    EXPECT_EQ(RemoteClient("panel-1").log_in(), (Ports{62001, 63001}));
    EXPECT_EQ(gateway.audio_calls(),
              (Texts{"ClientAuthenticated ('@localhost',)", "ClientDeauthenticated ('@localhost',)",
                     "ClientAuthenticated ('@localhost',)", "ClientDeauthenticated ('@localhost',)",
                     "ClientAuthenticated ('panel-1',)"}));
}

struct TakenCase {
    uint16_t port;
    int other_port;
    const char *log;
    Texts released;
};
const TakenCase taken_ports[] = {
    {62001, 63001, "error bind on port (tcp://*:62001)", {"free cl_cmds"}                  },
    {63001, 62001, "error bind on port (tcp://*:63001)", {"free cl_cmds", "free cl_events"}},
};

TEST(Session, RefusesATakenPortAndGoesOnToTheNext) {
    for (const TakenCase &row : taken_ports) {
        SCOPED_TRACE(row.port);
        Gateway gateway;
        const TakenPort taken(SOCK_STREAM, row.port);
        RemoteClient panel("panel-1");
        EXPECT_EQ(panel.log_in({.monitor = true}), Ports{});
        gateway.expect_log({row.log, "free client", "client free cmd port = -1, event port -1 (type: 1)"});
        Texts released = row.released;
        released.insert(released.end(), {"free cl_username", "remove cl_id from list of known client"});
        EXPECT_EQ(gateway.service().log_until("free cl_id"), released);
        wait_until_closed(row.other_port);
        EXPECT_EQ(panel.log_in({.user_name = "quillmont", .password = "tandrivel"}), (Ports{62002, 63002}));
        EXPECT_EQ(panel.read(a_key).status(), wire::STATUS_OK);
        EXPECT_EQ(gateway.audio_calls(),
                  (Texts{"ClientDeauthenticated ('panel-1',)", "ClientAuthenticated ('panel-1',)"}));
    }
}

const Texts keepalive = {"tcp_keepalive :1",       "tcp_keepalive_idle :20", "tcp_keepalive_cnt :2",
                         "tcp_keepalive_intvl :5", "reconnect_ivl :200",     "zsock_reconnect_ivl_max :1000"};
const Texts heartbeat = {"configure cmd HEARTBEAT", "cmd HEARTBEAT: 1000", "cmd HEARTBEAT TIMEOUT: 20000",
                         "cmd HEARTBEAT TTL: 20000"};

struct OpeningCase {
    const char *why;
    LoginOptions login;
    Texts heartbeat, monitor;
    const char *flags;
};
const OpeningCase openings[] = {
    {"plain",
     {.connect = false},
     {},
     {"monitor not done because requested in this way: 0 'panel-1'"},
     "discard_my_feedback:0 hide_secure:0 no_lock:0"},
    {"everything",
     {.monitor = true, .discard_my_feedback = true, .hide_secure_info = true, .no_lock = true, .connect = false},
     heartbeat, {"try to enable MONITORING", "MONITOR"},
     "discard_my_feedback:1 hide_secure:1 no_lock:1"},
};

TEST(Session, OpensItsSocketsInOrderWithTheirOptions) {
    for (const OpeningCase &row : openings) {
        SCOPED_TRACE(row.why);
        Gateway gateway;
        RemoteClient("panel-1").log_in(row.login);
        gateway.expect_log({"[AUTH] cmd=62001"});
        Texts expected = keepalive;
        expected.insert(expected.end(), row.heartbeat.begin(), row.heartbeat.end());
        expected.insert(expected.end(), {"panel-1: private cmd port on (*) 62001 62001", "[AUTH] events=63001",
                                         "panel-1: private events port on (*) 63001 63001"});
        expected.insert(expected.end(), row.monitor.begin(), row.monitor.end());
        EXPECT_EQ(gateway.service().log_until("ZMQ socket created and set discard to: 0x* " + std::string(row.flags)),
                  expected);
    }
}

struct AddressCase {
    const char *setting, *shown;
    bool elsewhere;  // heard on another address of this machine
};
constexpr AddressCase addresses[] = {
    {"",          "*",         true },
    {"127.0.0.1", "127.0.0.1", false},
    {"127.0.0.2", "127.0.0.2", true },
};

TEST(Session, BindsToTheAddressThatIsSet) {
    for (const AddressCase &row : addresses) {
        SCOPED_TRACE(row.setting);
        Gateway gateway({.environment = {{"ZMQ_ACCESS_IP", row.setting}}});
        const std::string address = *row.setting != '\0' ? row.setting : "127.0.0.1";
        RemoteClient panel("panel-1", address);
        EXPECT_EQ(panel.log_in(), (Ports{62001, 63001}));
        EXPECT_EQ(panel.read(a_key).status(), wire::STATUS_OK);
        const std::string shown = row.shown;
        gateway.expect_log({"panel-1: private cmd port on (" + shown + ") 62001 62001",
                            "panel-1: private events port on (" + shown + ") 63001 63001"});
        for (const int port : {60000, 62001, 63001}) {
            EXPECT_TRUE(is_open(port, address)) << port;
            EXPECT_EQ(is_open(port, "127.0.0.2"), row.elsewhere) << port;
        }
    }
}

TEST(Session, ShutdownReleasesAllClientsQuietly) {
    Gateway gateway;
    Discovery discovery;
    discovery.send(discovery_request("seen only"));
    discovery.receive();
    RemoteClient first("panel-1"), second("panel-2"), third("panel-3");
    first.log_in();
    second.log_in({.monitor = true});
    third.log_in({.no_lock = true});
    gateway.expect_log({"first same connection: (panel-2) 1"});
    gateway.audio_calls();  // adds the record "fence"

    gateway.service().send_signal(SIGTERM);
    gateway.expect_log({"Stop auth destroy socket"});
    Texts log = gateway.service().log_until("Stop s_loop poller and destroy");
    EXPECT_EQ(std::count(log.begin(), log.end(), "client_free_callback"), 5);
    EXPECT_EQ(std::count(log.begin(), log.end(), "free cl_id"), 5);
    std::erase_if(log, [](const std::string &line) { return !line.starts_with("client free"); });
    std::sort(log.begin(), log.end());
    EXPECT_EQ(log, (Texts{"client free cmd port = -1, event port -1 (type: 0)",
                          "client free cmd port = -1, event port -1 (type: 0)",
                          "client free cmd port = 62001, event port 63001 (type: 0)",
                          "client free cmd port = 62002, event port 63002 (type: 0)",
                          "client free cmd port = 62003, event port 63003 (type: 0)"}));
    EXPECT_EQ(gateway.service().wait_exit(), Exit{});
    gateway.bus().call({"com.quillmont.kesto.Data", "/com/quillmont/kesto/Data", "com.quillmont.kesto.Data.Service"},
                       "Read", g_variant_new("(us)", 0x2000, "/after/the/end"));
    gateway.device().expect_no_log_before("ClientDeauthenticated*", "Read (uint32 8192, '/after/the/end')");
}

}  // namespace
