// Who gets in on the authentication socket, who does not, and how a client leaves.
#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "harness/fixtures.h"
#include "harness/port.h"

struct Login : testing::Test, GatewayFixture {};
struct RunningSession : testing::Test, LoggedInFixture {};
using Logout = Login;
using Authentication = Login;

static constexpr const char *added = "[AUTH] added non discovered client";

static const struct {
    const char *id;
    OptionalText user_name, password;
    Ports ports;  // Ports{}: refused, which takes none
} credentials[] = {
    {"second user",              "quillmont",  "tandrivel",  {62001, 63001}},
    {"user in another case",     "Root",       "vormi",      {}            },
    {"password in another case", "root",       "Vormi",      {}            },
    {"more than a password",     "root",       "vormi2",     {}            },
    {"empty password",           "root",       "",           {}            },
    {"part of a password",       "root",       "vorm",       {}            },
    {"password of the other",    "root",       "tandrivel",  {}            },
    {"user only",                "root",       std::nullopt, {}            },
    {"password only",            std::nullopt, "vormi",      {}            },
    {"first user",               "root",       "vormi",      {62002, 63002}},
};

TEST_F(Login, TakesTheTwoUsersAndNobodyElse) {
    for (const auto &row : credentials) {
        SCOPED_TRACE(row.id);
        RemoteClient client(row.id);
        EXPECT_EQ(client.log_in({.user_name = row.user_name, .password = row.password}), row.ports);
        const std::string call = row.ports == Ports{} ? "ClientDeauthenticated" : "ClientAuthenticated";
        EXPECT_EQ(gateway.audio_calls(), Texts{call + " ('" + row.id + "',)"});
    }
}

TEST_F(Login, ComparesTheDiscoveryTextIfThereIsOne) {
    const std::string own = "@?DKX8-3000\0341.12.1.32\034QM240817\034?\034\034\034QM240817\0344221=ON!";
    Texts others = {"", own.substr(0, own.size() - 1), own + "!"};
    for (const size_t place : {size_t{0}, own.find('K'), own.find('\034'), own.size() - 1})
        others.emplace_back(own).at(place) ^= 0x20;  // changes the case of a letter
    for (const std::string &text : others) {
        SCOPED_TRACE(text);
        EXPECT_EQ(panel.log_in({.discovery = text}), Ports{});
        gateway.expect_log({"request login with discovery message: " + text, "internal discovery message: " + own,
                            "not possible to login with incorrect discovery message: '" + text + "' - '" + own + "'",
                            "free client"});
    }
    EXPECT_EQ(panel.log_in({.discovery = own}), (Ports{62001, 63001}));  // the refused ones have taken none
}

static constexpr struct {
    bool monitor, no_lock;
    Channel channel;
    const char *told_id;
} logouts[] = {
    {false, false, Channel::authentication, "panel-1"   },
    {false, true,  Channel::command,        "@localhost"},
    {true,  false, Channel::command,        "panel-1"   },
    {true,  true,  Channel::authentication, "@localhost"},
};

TEST_F(Logout, AnswersThenReleasesAndFreesTheId) {
    Ports ports = {62001, 63001};
    for (const auto &row : logouts) {
        SCOPED_TRACE(ports.command);
        EXPECT_EQ(panel.log_in({.monitor = row.monitor, .no_lock = row.no_lock}), ports);
        gateway.expect_log({added, row.monitor ? "first same connection: (panel-1) 1" : "[AUTH] > zmq_msg_send"});
        EXPECT_EQ(panel.log_out(row.channel).status(), wire::STATUS_OK);
        gateway.expect_log({"[panel-1] deauthenticating... (*)"});
        const Texts log = gateway.service().log_until("free cl_id");
        const auto watched = std::ranges::find(log, "free cl_cmds");  // by the monitor, which must end before
        EXPECT_EQ(std::count(log.begin(), watched, "free cl_monitor"), row.monitor);
        wait_until_closed(ports.command++);
        wait_until_closed(ports.event++);
        const std::string told = std::string(" ('") + row.told_id + "',)";
        EXPECT_EQ(gateway.audio_calls(), (Texts{"ClientAuthenticated" + told, "ClientDeauthenticated" + told}));
    }
}

static const std::string no_id = "\n\x0fR\x0d\n\x04root\x12\x05vormi";
static constexpr size_t longest_id = 8185;

static std::string login_of(size_t id_length) {
    wire::Message message;
    *message.mutable_request() = login_request();
    message.mutable_request()->set_client_id(std::string(id_length, 'i'));
    return message.SerializeAsString();
}

static const std::string too_long_id = login_of(longest_id + 1);
static const struct {
    const char *why;
    Texts frames;
    const char *log;
} bad_requests[] = {
    {"no message",   {"\xff\xff\xff"}, "*:server_auth:* - error data not parsable"},
    {"empty",        {""},             "*:server_auth:* - error data not parsable"},
    {"two frames",   {no_id, ""},      "*:server_auth:* - error data not parsable"},
    {"no client id", {no_id},          "*:server_auth:* - invalid client id"      },
    {"id too long",  {too_long_id},    "*:server_auth:* - invalid client id"      },
};

TEST_F(Authentication, AnswersWhatIsNoRequestWithOneEmptyFrame) {
    for (const auto &row : bad_requests) {
        SCOPED_TRACE(row.why);
        EXPECT_EQ(panel.exchange(Channel::authentication, row.frames), "");
        EXPECT_EQ(panel.log_out().status(), wire::STATUS_OK);  // the socket is ready for the next request at once
        gateway.expect_log({"[AUTH] > received * bytes", row.log, "[AUTH] error encoding..."});
        gateway.service().expect_no_log_before("free cl_id", "[AUTH] >");
        gateway.expect_log({added, "free client", "client free cmd port = -1, event port -1 (type: 1)", "free cl_id"});
    }
}

TEST_F(Authentication, TakesTheLongestId) {
    EXPECT_EQ(RemoteClient(std::string(longest_id, 'i')).log_in(), (Ports{62001, 63001}));
}

TEST_F(RunningSession, OffersNoDataAccessOnTheAuthenticationSocket) {
    panel.read(name_key);  // what a session may do does not stay behind for the next one who asks
    gateway.device().expect_log({"Read *"});
    wire::Request read, write, multi_write, authorize;
    read.mutable_read()->set_key(name_key);
    write.mutable_write()->set_key(name_key);
    multi_write.mutable_multi_write()->add_pairs()->set_key(name_key);
    authorize.mutable_authorize()->set_key(name_key);
    for (const wire::Request &request : {read, write, multi_write, authorize}) {
        SCOPED_TRACE(request.operation_case());
        EXPECT_EQ(panel.ask(Channel::authentication, request).status(), wire::STATUS_UNSUPPORTED);
    }
}
