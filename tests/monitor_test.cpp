// A monitored client: announced when it connects, logged off when it vanishes.
#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness/gateway.h"
#include "harness/port.h"
#include "harness/remote_client.h"

namespace {

using Texts = std::vector<std::string>;
constexpr const char *came = "ClientAuthenticated ('panel-1',)", *went = "ClientDeauthenticated ('panel-1',)";
constexpr const char *first_connection = "first same connection: (panel-1) 1";
constexpr const char *second_connection = "reopen same connection: (panel-1) 2";
constexpr const char *not_the_last = "client deconnection but it is not the last one: (panel-1) 1";
constexpr const char *log_off = "no other command connection opened, so auto-logoff (panel-1)";
constexpr const char *a_key = "/Device/Config/Name";
constexpr Ports first_ports = {62001, 63001};
const LoginOptions monitored = {.monitor = true}, monitored_from_afar = {.monitor = true, .connect = false};

const Texts release = {"client free cmd port = 62001, event port 63001 (type: 1)",
                       "free cl_monitor poller",
                       "free cl_monitor",
                       "free cl_cmds poller",
                       "free cl_cmds",
                       "free cl_events",
                       "free cl_username",
                       "remove cl_id from list of known client"};

void expect_logged_off(Gateway &gateway) {
    gateway.expect_log({"DISCONNECTED socket"});
    Texts expected = {log_off, "[panel-1] deauthenticating... (0)", "free client (1)"};
    expected.insert(expected.end(), release.begin(), release.end());
    EXPECT_EQ(gateway.service().log_until("free cl_id"), expected);
    wait_until_closed(first_ports.command);
    wait_until_closed(first_ports.event);
}

TEST(Monitor, AnnouncesAClientWhenItConnects) {
    Gateway gateway;
    RemoteClient panel("panel-1");
    EXPECT_EQ(panel.log_in(monitored_from_afar), first_ports);
    EXPECT_EQ(panel.log_in(monitored_from_afar), first_ports);
    EXPECT_EQ(gateway.audio_calls(), Texts{});
    panel.connect_to(first_ports);
    gateway.expect_log({"client monitor event 62001", "ACCEPTED socket", first_connection,
                        "clientAuthenticated no_lock:0 id:panel-1"});
    EXPECT_EQ(panel.log_in(monitored), first_ports);
    gateway.expect_log({"[panel-1] alredy exist a connection, reuse it (1)"});
    EXPECT_EQ(gateway.audio_calls(), Texts{came});
}

TEST(Monitor, LogsOffWithTheLastConnection) {
    Gateway gateway;
    RemoteClient panel("panel-1");
    std::optional<RemoteClient> other("panel-1");
    panel.log_in(monitored);
    gateway.expect_log({first_connection});
    other->connect_to(first_ports);
    gateway.expect_log({"ACCEPTED socket", second_connection});
    EXPECT_EQ(other->read(a_key).status(), wire::STATUS_OK);
    other.reset();
    gateway.expect_log({"DISCONNECTED socket", not_the_last});
    EXPECT_EQ(panel.read(a_key).status(), wire::STATUS_OK);
    EXPECT_EQ(gateway.audio_calls(), Texts{came});

    panel.hang_up();
    expect_logged_off(gateway);
    EXPECT_EQ(gateway.audio_calls(), Texts{went});
    EXPECT_EQ(panel.log_in({.user_name = "quillmont", .password = "tandrivel"}), (Ports{62002, 63002}));
    gateway.expect_log({"[AUTH] added non discovered client"});
}

// Whoever opens a TCP connection to the command port counts, a client or not.
TEST(Monitor, CountsAPortScannerLikeAClient) {
    Gateway gateway;
    RemoteClient panel("panel-1");
    panel.log_in(monitored);
    gateway.expect_log({first_connection});
    EXPECT_TRUE(is_open(62001));
    gateway.expect_log({second_connection, not_the_last});
    EXPECT_EQ(panel.read(a_key).status(), wire::STATUS_OK);
    panel.log_out();
    wait_until_closed(62001);

    RemoteClient late("panel-2");
    EXPECT_EQ(late.log_in(monitored_from_afar), (Ports{62002, 63002}));
    EXPECT_TRUE(is_open(62002));
    gateway.expect_log({"first same connection: (panel-2) 1",
                        "no other command connection opened, so auto-logoff (panel-2)", "free cl_id"});
    EXPECT_EQ(gateway.audio_calls(),
              (Texts{came, went, "ClientAuthenticated ('panel-2',)", "ClientDeauthenticated ('panel-2',)"}));
    EXPECT_EQ(late.log_in(monitored), (Ports{62003, 63003}));
    gateway.expect_log({"first same connection: (panel-2) 1"});
}

TEST(Monitor, AnEventConnectionIsNotCounted) {
    Gateway gateway;
    RemoteClient panel("panel-1");
    panel.log_in(monitored);
    gateway.expect_log({first_connection});
    EXPECT_TRUE(is_open(63001));
    panel.hang_up();
    gateway.service().expect_no_log_before("ACCEPTED socket", log_off);
}

struct LogoutCase {
    Channel channel;
    const char *mark;
};
constexpr LogoutCase logouts[] = {
    {Channel::authentication, "free client"                                },
    {Channel::command,        "free client because is marker as destroyble"},
};

TEST(Monitor, LetsAClientLogOutByItself) {
    for (const LogoutCase &row : logouts) {
        SCOPED_TRACE(row.mark);
        Gateway gateway;
        RemoteClient panel("panel-1");
        panel.log_in(monitored);
        gateway.expect_log({first_connection});
        EXPECT_EQ(panel.log_out(row.channel).status(), wire::STATUS_OK);
        gateway.expect_log({"[panel-1] deauthenticating... (1)", row.mark});
        EXPECT_EQ(gateway.service().log_until("free cl_id"), release);
        panel.hang_up();
        EXPECT_EQ(panel.log_in(monitored), (Ports{62002, 63002}));
        gateway.expect_log({first_connection});
        EXPECT_EQ(gateway.audio_calls(), (Texts{came, went, came}));
    }
}

TEST(Monitor, AnnouncesAClientWithoutLockUnderTheLocalId) {
    Gateway gateway;
    RemoteClient panel("panel-1");
    panel.log_in({.monitor = true, .no_lock = true});
    gateway.expect_log({first_connection});
    panel.hang_up();
    expect_logged_off(gateway);
    EXPECT_EQ(gateway.audio_calls(),
              (Texts{"ClientAuthenticated ('@localhost',)", "ClientDeauthenticated ('@localhost',)"}));
}

TEST(Monitor, LeavesOtherClientsAlone) {
    Gateway gateway;
    RemoteClient panel("panel-1"), watched("panel-2");
    panel.log_in();
    watched.log_in(monitored);
    gateway.expect_log({"first same connection: (panel-2) 1"});
    EXPECT_EQ(panel.read(a_key).status(), wire::STATUS_OK);
    panel.hang_up();
    watched.hang_up();
    gateway.service().expect_no_log_before("*auto-logoff (panel-1)", "*auto-logoff (panel-2)");
    panel.connect_to(first_ports);
    EXPECT_EQ(panel.read(a_key).status(), wire::STATUS_OK);
    EXPECT_EQ(panel.log_in(), first_ports);
    EXPECT_EQ(gateway.audio_calls(),
              (Texts{came, "ClientAuthenticated ('panel-2',)", "ClientDeauthenticated ('panel-2',)", came}));
}

// A monitor that is torn down while the process is interrupted must not take the process with it.
TEST(Monitor, SurvivesTheStopOfTheService) {
    for (const bool vanish : {false, true}) {
        SCOPED_TRACE(vanish);
        Gateway gateway;
        std::vector<RemoteClient> panels;
        for (int i = 1; i <= 10; i++) {
            const std::string id = "panel-" + std::to_string(i);
            panels.emplace_back(id).log_in(monitored);
            gateway.expect_log({"first same connection: (" + id + ") 1"});
        }
        gateway.service().send_signal(SIGTERM);
        if (vanish) panels.clear();
        EXPECT_EQ(gateway.service().wait_exit(), Exit{});
        gateway.expect_log({"end zmq mainloop: 0", "destroy srv", "free cl_monitor", "stopped access"});
    }
}

}  // namespace
