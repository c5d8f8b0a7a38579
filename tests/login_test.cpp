// Who gets in on the authentication socket, who does not, and how a client leaves.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "harness/discovery.h"
#include "harness/gateway.h"
#include "harness/port.h"
#include "harness/remote_client.h"

namespace {

using Calls = std::vector<std::string>;
constexpr const char *came = "ClientAuthenticated ('panel-1',)", *went = "ClientDeauthenticated ('panel-1',)";
constexpr const char *still_connected =
    "but there is already a client connected with same client id, so I cannot remove";
constexpr const char *plain_text =
    "@?DKX8-3000\x1c"
    "1.12.1.32\x1cQM240817\x1c?\x1c\x1c\x1cQM240817\x1c"
    "4221=ON!";
const LoginOptions quillmont = {.user_name = "quillmont", .password = "tandrivel"};

struct CredentialsCase {
    const char *id;
    OptionalText user_name, password;
    Ports ports;  // none: refused, and none are spent
};
const CredentialsCase credentials[] = {
    {"first user",               "root",       "vormi",      {62001, 63001}},
    {"second user",              "quillmont",  "tandrivel",  {62002, 63002}},
    {"user in another case",     "Root",       "vormi",      {}            },
    {"password in another case", "root",       "Vormi",      {}            },
    {"wrong password",           "root",       "vormi2",     {}            },
    {"part of a password",       "root",       "vorm",       {}            },
    {"password of the other",    "root",       "tandrivel",  {}            },
    {"space at the end",         "root ",      "vormi",      {}            },
    {"unknown user",             "admin",      "vormi",      {}            },
    {"user only",                "root",       std::nullopt, {}            },
    {"password only",            std::nullopt, "vormi",      {}            },
    {"empty texts",              "",           "",           {}            },
    {"good after all",           "root",       "vormi",      {62003, 63003}},
};

TEST(Login, TakesTheTwoUsersAndNobodyElse) {
    Gateway gateway;
    for (const CredentialsCase &row : credentials) {
        SCOPED_TRACE(row.id);
        RemoteClient client(row.id);
        EXPECT_EQ(client.log_in({.user_name = row.user_name, .password = row.password}), row.ports);
        const std::string call = row.ports == Ports{} ? "ClientDeauthenticated" : "ClientAuthenticated";
        EXPECT_EQ(gateway.audio_calls(), Calls{call + " ('" + row.id + "',)"});
    }
}

TEST(Login, SaysInTheLogWhatItDecided) {
    Gateway gateway;
    RemoteClient panel("panel-1");
    EXPECT_EQ(panel.log_in({.user_name = "root", .password = "no"}), Ports{});
    gateway.expect_log({"[AUTH] >", "[AUTH] > received * bytes", "[AUTH] added non discovered client",
                        "[AUTH] > client: 0x*,id=panel-1", "server_auth_callback: root no 0 0 0 0 NULL",
                        "[panel-1](0) authenticating username=[root], password=[no], monitor=[0] "
                        "discard_my_feedback=[0], hide_secure_info=[0], no_lock=[0], ...",
                        "user root, password no not authenticated",
                        "Unable to authenticate with username=root and password=no", "[AUTH] > zmq_msg_send",
                        "free client", "client free cmd port = -1, event port -1 (type: 1)", "free cl_username",
                        "remove cl_id from list of known client", "free cl_id"});
    // The record went with its user name.
    EXPECT_EQ(panel.log_in(quillmont), (Ports{62001, 63001}));
    gateway.expect_log({"[AUTH] added non discovered client", "user quillmont, password tandrivel OK",
                        "request login WITHOUT discovery message", "clientAuthenticated no_lock:0 id:panel-1",
                        "[panel-1] authenticating username=[quillmont], password=[tandrivel] done",
                        "[AUTH] > zmq_msg_send"});
}

constexpr const char *reused = "[panel-1] alredy exist a connection, reuse it (0)";
constexpr const char *announced = "clientAuthenticated no_lock:0 id:panel-1";
constexpr const char *passphrase = "/Device/Config/Networking/Wifi/Passphrase";

TEST(Login, RenewalKeepsPortsAndFlags) {
    Gateway gateway;
    RemoteClient panel("panel-1");
    EXPECT_EQ(panel.log_in({.hide_secure_info = true}), (Ports{62001, 63001}));
    EXPECT_EQ(panel.log_in({.hide_secure_info = true}), (Ports{62001, 63001}));
    gateway.expect_log({"login known client: panel-1", reused});
    EXPECT_EQ(gateway.service().log_until(announced), Calls{});
    EXPECT_EQ(panel.log_in({.discard_my_feedback = true, .no_lock = true}), (Ports{62001, 63001}));
    gateway.expect_log({reused});
    EXPECT_EQ(gateway.service().log_until(announced),
              (Calls{"[panel-1] discard_my_feedback stays 0, requested 1",
                     "[panel-1] hide_secure_info stays 1, requested 0", "[panel-1] no_lock stays 0, requested 1"}));
    EXPECT_EQ(panel.read(passphrase).value().text(), "********");
    EXPECT_EQ(gateway.audio_calls(), (Calls{came, came, came}));
    EXPECT_EQ(RemoteClient("panel-2").log_in(), (Ports{62002, 63002}));
}

TEST(Login, CanBeRenewedOnTheCommandSocket) {
    Gateway gateway;
    RemoteClient panel("panel-1");
    panel.log_in(quillmont);
    wire::Request request;
    request.mutable_login()->set_user_name("quillmont");
    request.mutable_login()->set_password("tandrivel");
    const wire::Reply renewed = panel.ask(Channel::command, request);
    EXPECT_EQ(renewed.session().command_port(), 62001);
    EXPECT_EQ(renewed.session().event_port(), 63001);
    request.mutable_login()->set_password("vormi");
    EXPECT_EQ(panel.ask(Channel::command, request).status(), wire::STATUS_REFUSED);
    gateway.expect_log({still_connected});
    EXPECT_EQ(panel.read("/Device/Config/Name").status(), wire::STATUS_OK);
}

struct RefusedCase {
    const char *why;
    LoginOptions login;
    const char *log;
};
const RefusedCase refused_on_a_session[] = {
    {"wrong password", {.password = "no"},          still_connected                       },
    {"no user",        {.user_name = std::nullopt}, still_connected                       },
    {"wrong device",   {.discovery = "@?D!"},       still_connected                       },
    {"another user",   quillmont,                   "more the one login on root quillmont"},
    {"unknown user",   {.user_name = "admin"},      "more the one login on root admin"    },
};

TEST(Login, RefusedLeavesARunningSessionAlone) {
    Gateway gateway;
    RemoteClient panel("panel-1");
    panel.log_in();
    EXPECT_EQ(gateway.audio_calls(), Calls{came});
    for (const RefusedCase &row : refused_on_a_session) {
        SCOPED_TRACE(row.why);
        EXPECT_EQ(panel.log_in(row.login), Ports{});
        gateway.service().expect_no_log_before("free client", row.log);
        EXPECT_EQ(panel.write("/Device/Config/Hardware/Model/Serial", row.why).status(), wire::STATUS_OK);  // as root
    }
    EXPECT_EQ(gateway.audio_calls(), Calls{});
    EXPECT_EQ(panel.log_in(), (Ports{62001, 63001}));
}

struct DiscoveryTextCase {
    const char *why;
    OptionalText text;
    bool accepted;
};
std::string with_byte(size_t place, char byte) {
    std::string text = plain_text;
    text.at(place) = byte;
    return text;
}
const std::string whole = plain_text;
const DiscoveryTextCase discovery_texts[] = {
    {"the device's own",          whole,                      true          },
    {"none",                      std::nullopt,               true          },
    {"first byte",                with_byte(0,                '#'),           false},
    {"a separator",                           with_byte(whole.find('\x1c'),                                         ' '), false},
    {"letter case",                      with_byte(3,                                                'k'),                                                  false},
    {"last byte",                       with_byte(whole.size() - 1,'?'),false},
    {"a byte less",whole.substr(0,     whole.size() - 1),                                                     false},
    {"a byte more",               whole + "!",                                                 false                                         },
    {"empty",                           "",                                         false                             },
};

TEST(Login, ComparesTheDiscoveryTextIfThereIsOne) {
    Gateway gateway;
    for (const DiscoveryTextCase &row : discovery_texts) {
        SCOPED_TRACE(row.why);
        const Ports ports = RemoteClient(row.why).log_in({.discovery = row.text, .connect = false});
        EXPECT_EQ(ports != Ports{}, row.accepted);
        if (!row.text) gateway.expect_log({"request login WITHOUT discovery message"});
        else
            gateway.expect_log(
                {"request login with discovery message: " + *row.text, "internal discovery message: " + whole});
        if (!row.accepted)
            gateway.expect_log(
                {"not possible to login with incorrect discovery message: '" + *row.text + "' - '" + whole + "'",
                 "free client"});
    }
    EXPECT_EQ(RemoteClient("panel-1").log_in(), (Ports{62003, 63003}));  // the refused ones spent none
}

struct LogoutCase {
    Channel channel;
    const char *mark;
};
constexpr LogoutCase logouts[] = {
    {Channel::authentication, "free client"                                },
    {Channel::command,        "free client because is marker as destroyble"},
};

TEST(Logout, AnswersThenReleasesAndFreesTheId) {
    for (const LogoutCase &row : logouts) {
        SCOPED_TRACE(row.mark);
        Gateway gateway;
        RemoteClient panel("panel-1");
        panel.log_in();
        gateway.expect_log({"[AUTH] > zmq_msg_send"});
        const wire::Reply reply = panel.log_out(row.channel);
        EXPECT_EQ(reply.status(), wire::STATUS_OK);
        EXPECT_EQ(reply.result_case(), wire::Reply::RESULT_NOT_SET);
        gateway.expect_log({"[panel-1] deauthenticating... (0)", row.mark});
        EXPECT_EQ(
            gateway.service().log_until("free cl_id"),
            (Calls{"client free cmd port = 62001, event port 63001 (type: 1)", "free cl_cmds poller", "free cl_cmds",
                   "free cl_events", "free cl_username", "remove cl_id from list of known client"}));
        wait_until_closed(62001);
        wait_until_closed(63001);
        EXPECT_EQ(panel.log_in(quillmont), (Ports{62002, 63002}));
        gateway.expect_log({"[AUTH] added non discovered client"});
        EXPECT_EQ(gateway.audio_calls(), (Calls{came, went, came}));
    }
}

TEST(Logout, OfAnUnknownClientIsAnsweredAndLeavesNothing) {
    Gateway gateway;
    RemoteClient panel("panel-1");
    for (int attempt = 0; attempt < 2; attempt++) {
        EXPECT_EQ(panel.log_out().status(), wire::STATUS_OK);
        gateway.expect_log({"[AUTH] added non discovered client", "free client",
                            "client free cmd port = -1, event port -1 (type: 1)", "free cl_id"});
    }
    EXPECT_EQ(gateway.audio_calls(), (Calls{went, went}));
}

TEST(Login, WithoutLockIsAnnouncedUnderTheLocalId) {
    Gateway gateway;
    RemoteClient panel("panel-1");
    panel.log_in({.no_lock = true});
    gateway.expect_log({"clientAuthenticated no_lock:1 id:panel-1"});
    panel.log_out();
    EXPECT_EQ(gateway.audio_calls(),
              (Calls{"ClientAuthenticated ('@localhost',)", "ClientDeauthenticated ('@localhost',)"}));
}

std::string login_of(const std::string &id) {
    wire::Message message;
    message.mutable_request()->set_client_id(id);
    message.mutable_request()->mutable_login()->set_user_name("root");
    message.mutable_request()->mutable_login()->set_password("vormi");
    return message.SerializeAsString();
}

std::string not_utf8() {
    std::string bytes = login_of("panel");
    bytes.at(bytes.find('p')) = '\xff';
    return bytes;
}

std::string no_request() {
    wire::Message message;
    message.mutable_event()->mutable_speaker_preset_loaded();
    return message.SerializeAsString();
}

struct BadRequestCase {
    const char *why;
    std::vector<std::string> frames;
    const char *log;
};
constexpr const char *not_parsable = "*:server_auth:* - error data not parsable";
const BadRequestCase bad_requests[] = {
    {"no message",         {"\xff\xff\xff"},                 not_parsable                         },
    {"cut",                {login_of("panel").substr(0, 8)}, not_parsable                         },
    {"empty",              {""},                             not_parsable                         },
    {"an event",           {no_request()},                   not_parsable                         },
    {"a NUL in the id",    {login_of({"a\0b", 3})},          not_parsable                         },
    {"an id not in UTF-8", {not_utf8()},                     not_parsable                         },
    {"two frames",         {login_of("panel"), ""},          not_parsable                         },
    {"four frames",        {"", "", "", login_of("panel")},  not_parsable                         },
    {"no client id",       {login_of("")},                   "*:server_auth:* - invalid client id"},
};

TEST(Authentication, AnswersWhatIsNoRequestWithOneEmptyFrame) {
    Gateway gateway;
    RemoteClient panel("panel-1");
    for (const BadRequestCase &row : bad_requests) {
        SCOPED_TRACE(row.why);
        EXPECT_EQ(panel.exchange(Channel::authentication, row.frames), "");
        EXPECT_EQ(panel.log_out().status(), wire::STATUS_OK);  // the socket is ready for the next request at once
        gateway.expect_log({"[AUTH] >", "[AUTH] > received * bytes", row.log, "[AUTH] error encoding..."});
        gateway.expect_log({"[AUTH] >"});
        gateway.service().expect_no_log_before("[AUTH] >", "free cl_id");
    }
    EXPECT_EQ(panel.log_in(), (Ports{62001, 63001}));
}

TEST(Authentication, OffersNoDataAccess) {
    Gateway gateway;
    RemoteClient panel("panel-1");
    panel.log_in();
    wire::Request read, write, multi_write, authorize, nothing;
    read.mutable_read()->set_key("/Device/Config/Name");
    write.mutable_write()->set_key("/Device/Config/Name");
    write.mutable_write()->set_value("changed");
    multi_write.mutable_multi_write()->add_pairs()->set_key("/Device/Config/Name");
    authorize.mutable_authorize()->set_operation(2);
    authorize.mutable_authorize()->set_key("/");
    for (const wire::Request &request : {read, write, multi_write, authorize, nothing}) {
        SCOPED_TRACE(request.ShortDebugString());
        EXPECT_EQ(panel.ask(Channel::authentication, request).status(), wire::STATUS_UNSUPPORTED);
    }
    EXPECT_EQ(panel.read("/Device/Config/Name").value().text(), "Rack 3, amplifier 2");
    EXPECT_EQ(panel.log_in(), (Ports{62001, 63001}));
}

}  // namespace
