// A monitored client: announced when it connects, logged off when it vanishes.
#include <algorithm>
#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness/fixtures.h"
#include "harness/port.h"

struct Monitor : testing::Test, GatewayFixture {};

static const std::string came = "ClientAuthenticated ", went = "ClientDeauthenticated ", panel_1 = "('panel-1',)",
                         panel_2 = "('panel-2',)";
static const std::string log_off = "no other command connection opened, so auto-logoff ";
static const LoginOptions monitored = {.monitor = true}, monitored_from_afar = {.monitor = true, .connect = false};

TEST_F(Monitor, AnnouncesWithTheFirstConnectionAndLogsOffWithTheLast) {
    constexpr Ports ports = {62001, 63001};
    EXPECT_EQ(panel.log_in(monitored_from_afar), ports);
    EXPECT_EQ(panel.log_in(monitored_from_afar), ports);
    EXPECT_EQ(gateway.audio_calls(), Texts{});
    panel.connect_to(ports);
    gateway.expect_log({"client monitor event 62001", "ACCEPTED socket", "first same connection: (panel-1) 1",
                        "clientAuthenticated no_lock:0 id:panel-1"});
    EXPECT_EQ(panel.log_in(monitored), ports);
    gateway.expect_log({"[panel-1] alredy exist a connection, reuse it (1)"});

    EXPECT_TRUE(is_open(ports.command));
    gateway.expect_log({"ACCEPTED socket", "reopen same connection: (panel-1) 2", "DISCONNECTED socket",
                        "client deconnection but it is not the last one: (panel-1) 1"});
    EXPECT_EQ(panel.read(name_key).status(), wire::STATUS_OK);
    EXPECT_EQ(gateway.audio_calls(), Texts{came + panel_1});

    EXPECT_TRUE(is_open(ports.event));  // does not count
    panel.hang_up();
    gateway.service().expect_no_log_before("ACCEPTED socket", "DISCONNECTED socket");
    gateway.expect_log({log_off + "(panel-1)", "free cl_id"});
    wait_until_closed(ports.command);
    wait_until_closed(ports.event);
    EXPECT_EQ(gateway.audio_calls(), Texts{went + panel_1});
    EXPECT_EQ(panel.log_in(as_quillmont), (Ports{62002, 63002}));
}

// On a monitored session's command port any TCP connection counts as the client's; on another one, none does.
TEST_F(Monitor, TakesAPortScannerForTheClient) {
    RemoteClient watched("panel-2");
    panel.log_in();
    watched.log_in(monitored_from_afar);
    panel.hang_up();
    EXPECT_TRUE(is_open(62001));
    EXPECT_TRUE(is_open(62002));
    gateway.expect_log({"first same connection: (panel-2) 1"});
    gateway.service().expect_no_log_before(log_off + "(panel-1)", log_off + "(panel-2)");
    EXPECT_EQ(panel.log_in(), (Ports{62001, 63001}));
    EXPECT_EQ(gateway.audio_calls(), (Texts{came + panel_1, came + panel_2, went + panel_2, came + panel_1}));
    EXPECT_EQ(watched.log_in(monitored), (Ports{62003, 63003}));
    gateway.expect_log({"first same connection: (panel-2) 1"});
}

// A monitor that is torn down while the process is interrupted, once and again, must not take the process with it.
TEST_F(Monitor, SurvivesTheStopOfTheService) {
    std::vector<RemoteClient> panels;
    for (int i = 1; i <= 10; i++) {
        const std::string id = "panel-" + std::to_string(i);
        panels.emplace_back(id).log_in(monitored);
        gateway.expect_log({"first same connection: (" + id + ") 1"});
    }
    for (int i = 0; i < 5000; i++) gateway.service().send_signal(SIGTERM);
    gateway.expect_log({"end zmq mainloop: 0", "destroy srv", "Stop auth destroy socket"});
    const Texts log = gateway.service().log_until("Stop s_loop poller and destroy");
    EXPECT_EQ(std::count(log.begin(), log.end(), "free cl_id"), 10);
    EXPECT_EQ(gateway.service().wait_exit(), Exit{});
}
