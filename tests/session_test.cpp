// The sockets of a session: their ports and options, and what becomes of them.
#include <algorithm>
#include <string>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "harness/discovery.h"
#include "harness/fixtures.h"
#include "harness/port.h"

struct Session : testing::Test, GatewayFixture {};

TEST(Ports, RotateAtTheEndOfTheirRanges) {
    constexpr int sessions = 998;
    // Too few descriptors for sessions that leave anything behind.
    Gateway gateway({.environment = {{"ZSYS_MAX_SOCKETS", ""}}, .prepared_by = "ulimit -n 256"});
    RemoteClient panel("panel-1");
    for (int i = 1; i <= sessions; i++) {
        ASSERT_EQ(panel.log_in({.connect = false}), (Ports{62000 + i, 63000 + i}));
        panel.log_out();
    }
    gateway.service().expect_no_log_before("rotate *", "[AUTH] cmd=62997");
    gateway.expect_log({"rotate cmd port", "rotate event port", "[AUTH] cmd=62998", "[AUTH] events=63998"});
    EXPECT_EQ(panel.log_in({.connect = false}), (Ports{62002, 63002}));
    EXPECT_EQ(RemoteClient("panel-2").log_in(), (Ports{62003, 63003}));
}

TEST_F(Session, OfLocalhostGetsItsPortsAgainAtOnce) {
    RemoteClient local("@localhost");
    for (int i = 0; i < 50; i++) {
        ASSERT_EQ(local.log_in(), (Ports{62000, 63000})) << i;
        EXPECT_EQ(local.read("/Device/Config/Name").status(), wire::STATUS_OK);
        EXPECT_EQ(local.log_out().status(), wire::STATUS_OK);
        local.hang_up();
    }
}

static const LoginOptions plain = {.connect = false}, monitored = {.monitor = true, .connect = false};
static const LoginOptions everything = {
    .monitor = -1, .discard_my_feedback = -1, .hide_secure_info = -1, .no_lock = -1, .connect = false};
static const struct {
    const char *id;
    LoginOptions login;
    Ports ports;
    bool watched;
    const char *flags;
} openings[] = {
    {"panel-1",     plain,      {62001, 63001}, false, "discard_my_feedback:0 hide_secure:0 no_lock:0"},
    {"panel-2",     everything, {62002, 63002}, true,  "discard_my_feedback:1 hide_secure:1 no_lock:1"},
    {"@localhost",  monitored,  {62000, 63000}, false, "discard_my_feedback:0 hide_secure:0 no_lock:0"},
    {"@localhost2", monitored,  {62003, 63003}, true,  "discard_my_feedback:0 hide_secure:0 no_lock:0"},
};

TEST_F(Session, OpensItsSocketsInOrderWithTheirOptions) {
    for (const auto &row : openings) {
        SCOPED_TRACE(row.id);
        EXPECT_EQ(RemoteClient(row.id).log_in(row.login), row.ports);
        const Texts log =
            gateway.service().log_until("ZMQ socket created and set discard to: 0x* " + std::string(row.flags));
        for (const char *option : {"tcp_keepalive :1", "tcp_keepalive_idle :20", "tcp_keepalive_cnt :2",
                                   "tcp_keepalive_intvl :5", "reconnect_ivl :200", "zsock_reconnect_ivl_max :1000"})
            EXPECT_EQ(std::ranges::count(log, option), 1) << option;
        for (const char *option :
             {"cmd HEARTBEAT: 1000", "cmd HEARTBEAT TIMEOUT: 20000", "cmd HEARTBEAT TTL: 20000", "MONITOR"})
            EXPECT_EQ(std::ranges::count(log, option), row.watched) << option;
    }
}

static constexpr struct {
    const char *setting, *shown;
    bool elsewhere;  // heard on another address of this machine
} addresses[] = {
    {"",          "*",         true },
    {"127.0.0.1", "127.0.0.1", false},
    {"127.0.0.2", "127.0.0.2", true },
};

TEST(Address, IsTheOneThatIsSet) {
    for (const auto &row : addresses) {
        SCOPED_TRACE(row.setting);
        Gateway gateway({.environment = {{"ZMQ_ACCESS_IP", row.setting}}});
        const std::string shown = row.shown, address = shown != "*" ? shown : "127.0.0.1";
        EXPECT_EQ(RemoteClient("panel-1", address).log_in({.connect = false}), (Ports{62001, 63001}));
        EXPECT_NE(Discovery().find("panel-2").find(row.elsewhere ? "|ZMQ:60000|" : "|ZMQ:0|"), std::string::npos);
        gateway.expect_log({"panel-1: private cmd port on (" + shown + ") 62001 62001",
                            "panel-1: private events port on (" + shown + ") 63001 63001"});
        for (const int port : {authentication_port, 62001, 63001}) {
            EXPECT_TRUE(is_open(port, address)) << port;
            EXPECT_EQ(is_open(port, "127.0.0.2"), row.elsewhere) << port;
        }
    }
}
