// What a program sees of libkesto-client when things go wrong, and that what it shows in the end is what the device
// holds.
#include <csignal>
#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <zmq.h>

#include <gtest/gtest.h>

#include <kesto-client/session.h>

#include "harness/panel.h"
#include "harness/random_steps.h"

static constexpr int close_limit_ms = 5000;
static constexpr const char *here = kesto::loopback_address;

// A panel that is connected, and shows what the device holds.
struct Connected {
    Gateway gateway;
    Panel panel;

    explicit Connected(const kesto::ClientOptions &options = panel_options()) : panel(options) {
        panel.expect({"connected"});
        settle(panel, gateway);
    }
};

// A ZeroMQ socket of a device whose answers the test gives.
class FakeSocket {
  public:
    FakeSocket(int type, int port) : socket_(zmq_socket(context(), type), zmq_close) {
        const int linger_ms = 0;
        zmq_setsockopt(socket_.get(), ZMQ_LINGER, &linger_ms, sizeof linger_ms);
        const std::string endpoint = "tcp://127.0.0.1:" + std::to_string(port);
        while (zmq_bind(socket_.get(), endpoint.c_str()) != 0)  // the one before closes its port a little later
            if (errno != EADDRINUSE) throw Abandoned("cannot bind " + endpoint);
    }
    std::string frame(kesto::Loop &loop, Where where = Where::current()) {
        std::string bytes(65536, '\0');
        int length = -1;
        serve(
            loop, "a request",
            [&] { return (length = zmq_recv(socket_.get(), bytes.data(), bytes.size(), ZMQ_DONTWAIT)) >= 0; }, where);
        return bytes.substr(0, static_cast<size_t>(length));
    }
    wire::Request request(kesto::Loop &loop, Where where = Where::current()) {
        wire::Message message;
        EXPECT_TRUE(message.ParseFromString(frame(loop, where)));
        return message.request();
    }
    void send(const Texts &frames) {
        for (size_t i = 0; i < frames.size(); i++)
            zmq_send(socket_.get(), frames[i].data(), frames[i].size(), i + 1 < frames.size() ? ZMQ_SNDMORE : 0);
    }

  private:
    static void *context() {
        static void *const one = zmq_ctx_new();
        return one;
    }
    std::unique_ptr<void, decltype(&zmq_close)> socket_;
};

static constexpr int fake_port = 61001, fake_command_port = 61002, fake_event_port = 61003;

static std::string reply_to(const wire::Request &request, int command_port = 0, uint32_t change_count = 0,
                            wire::Status status = wire::STATUS_OK) {
    wire::Message message;
    wire::Reply &reply = *message.mutable_reply();
    reply.set_sequence(request.sequence());
    reply.set_status(status);
    reply.set_change_count(change_count);
    if (command_port != 0) reply.mutable_session()->set_command_port(command_port);
    if (command_port != 0) reply.mutable_session()->set_event_port(fake_event_port);
    return message.SerializeAsString();
}
static bool is_log_out(const wire::Request &request) { return request.has_login() && !request.login().has_user_name(); }

TEST(Restart, BeforeTheLogin) {
    Gateway gateway({.with_service = false});
    Panel panel;
    pass(panel.loop, connect_limit_ms);
    panel.expect({"not_reachable: no answer from 127.0.0.1:60000 within 5 s"});
    pass(panel.loop, connect_limit_ms);  // again, and not said again
    gateway.start_service();
    skip(pause_ms);
    panel.expect({"connected"});
    settle(panel, gateway);
    EXPECT_EQ(panel.seen, Texts{});
}

// The answer to the login goes through the test's hands.
TEST(Restart, BeforeTheFirstRequest) {
    Gateway gateway;
    FakeSocket login(ZMQ_REP, fake_port);
    kesto::ClientOptions options = panel_options(fake_port);
    options.answer_limit_ms = 70000;
    Panel panel(options);
    const std::string answer = RemoteClient("relay").exchange(Channel::authentication, {login.frame(panel.loop)});
    kill_service(gateway);
    login.send({answer});
    for (; panel.seen.empty(); panel.loop.wait(10)) skip(connect_limit_ms / 50);  // far from the limit of the answer
    panel.expect({"not_reachable: *127.0.0.1:62001*"});
    gateway.start_service();
    for (const bool out : {true, false}) {
        const std::string request = login.frame(panel.loop);
        wire::Message message;
        EXPECT_TRUE(message.ParseFromString(request));
        EXPECT_EQ(is_log_out(message.request()), out);
        login.send({RemoteClient("relay").exchange(Channel::authentication, {request})});
    }
    panel.expect({"connected"});
    settle(panel, gateway);
}

TEST(Restart, DuringARequest) {
    Connected connected;
    auto &[gateway, panel] = connected;
    gateway.set_fault("write=late:600000");
    panel.ask(kesto::Write{name_key, "Hall"});
    panel.ask(kesto::Write{name_key, "Stage"});
    pass(panel.loop);
    gateway.device().expect_log({"Write (0, '/Device/Config/Name', 'Hall')"});
    kill_service(gateway);
    gateway.set_fault("write=none");
    gateway.start_service();
    panel.expect({"unknown", "lost: *", "not_sent", "recovered"});
    settle(panel, gateway);
    EXPECT_EQ(panel.shown[name_key], "Hall");
}

// Somebody else gets the ports, before the panel comes to know of the restart.
TEST(Restart, WhileIdleGivesThePortsToAnother) {
    Connected connected;
    auto &[gateway, panel] = connected;
    const kesto::Ports before = panel.client->ports();
    kill_service(gateway);
    gateway.start_service();
    skip(3000);  // more than ZeroMQ's pause between two connects
    const kesto::Endpoint login = {here, authentication_port};
    kesto::Session other(panel.loop, {login, "other", "root", "vormi", {}});
    ASSERT_TRUE(other.open({}));
    EXPECT_EQ(other.ports(), before);
    skip(3000);
    for (int i = 0; i < 20; i++) EXPECT_TRUE(other.ask(kesto::ChangeCount{}));
    panel.ask(kesto::Write{serial_key, "stolen"});
    panel.expect({"not_sent", "lost: the connection to * is gone", "recovered"});
    EXPECT_NE(panel.client->ports(), before);
    panel.ask(kesto::Write{serial_key, "stolen"});
    panel.expect({"not_allowed"});
    EXPECT_TRUE(other.ask(kesto::ChangeCount{}));
    settle(panel, gateway);
}

struct InvalidCase {
    const char *sentence;
    void (*spoil)(kesto::ClientOptions &options);
};
static constexpr InvalidCase invalid_options[] = {
    {"invalid: '' is no IPv4 address",             [](auto &o) { o.login.address = ""; }                },
    {"invalid: 'localhost' is no IPv4 address",    [](auto &o) { o.login.address = "localhost"; }       },
    {"invalid: '::1' is no IPv4 address",          [](auto &o) { o.login.address = "::1"; }             },
    {"invalid: 65536 is no port",                  [](auto &o) { o.login.port = 65536; }                },
    {"invalid: there is no client id",             [](auto &o) { o.client_id = ""; }                    },
    {"invalid: *NUL byte or is not UTF-8",         [](auto &o) { o.client_id = std::string("a\0b", 3); }},
    {"invalid: *NUL byte or is not UTF-8",         [](auto &o) { o.password = "\xff"; }                 },
    {"invalid: *text holds a NUL byte or is not*", [](auto &o) { o.static_discovery = "\xc3"; }         },
    {"invalid: a time is too short",               [](auto &o) { o.answer_limit_ms = 0; }               },
    {"invalid: a time is too short",               [](auto &o) { o.longest_pause_ms = 999; }            },
};

TEST(Options, ThatAreWrongAreToldOnceAndNothingIsAsked) {
    for (const InvalidCase &row : invalid_options) {
        SCOPED_TRACE(row.sentence);
        kesto::ClientOptions options = panel_options();
        row.spoil(options);
        Panel panel(std::move(options));
        panel.ask(kesto::ChangeCount{});
        panel.client->close([&panel] { panel.seen.emplace_back("closed"); });
        panel.expect({row.sentence, "not_sent", "closed"});
    }
}

TEST(AClientThatNobodyHasAnswered, IsClosedAtOnce) {
    Panel panel;
    pass(panel.loop);
    panel.client->close([&panel] { panel.seen.emplace_back("closed"); });
    pass(panel.loop);
    EXPECT_EQ(panel.seen, Texts{"closed"}) << "there can be no session that would have to be logged out";
}

// Logins of the panel that the service has begun to look at.
static size_t attempts(Gateway &gateway) {
    const std::string log = gateway.service().text(STDERR_FILENO), attempt = "authenticating username=[quillmont]";
    size_t count = 0;
    for (size_t at = log.find(attempt); at != log.npos; at = log.find(attempt, at + 1)) count++;
    return count;
}

// What was refused may be allowed later.
TEST(Refusal, OfTheIdEndsWithTheOtherUsersSession) {
    Gateway gateway;
    RemoteClient rival("panel-1");
    rival.log_in();
    Panel panel;
    panel.expect(
        {"refused: log in as quillmont: wrong user name or password, a session of another user under id panel-1, *"});
    panel.ask(kesto::Read{name_key});
    panel.expect({"not_sent"});
    serve(panel.loop, "another attempt", [&gateway] { return attempts(gateway) > 1; });
    EXPECT_EQ(rival.read(name_key).value().text(), name_value);  // nobody has logged it out
    rival.log_out();
    skip(pause_ms);
    panel.expect({"connected"});
    settle(panel, gateway);
}

TEST(Refusal, OfThePasswordLeavesNothingBehind) {
    Gateway gateway;
    kesto::ClientOptions options = panel_options();
    options.password = "vormi";
    Panel panel(std::move(options));
    panel.expect({"refused: *"});
    serve(panel.loop, "another attempt", [&gateway] { return attempts(gateway) > 1; });
    panel.client->close([&panel] { panel.seen.emplace_back("closed"); });
    panel.expect({"closed"});  // it was refused as before, and that was not said again
}

// Another program logs the id out: the panel comes back, as often as that happens, with a session of its own.
TEST(SharedId, IsLoggedOutByAnotherProgram) {
    kesto::ClientOptions options = panel_options();
    options.sign_of_life_ms = 600000;  // nothing is asked before the loss shows
    Connected connected(options);
    auto &[gateway, panel] = connected;
    kesto::Ports before = panel.client->ports();
    for (const bool asks : {false, true}) {
        settle(panel, gateway);
        RemoteClient("panel-1").log_out();
        gateway.control("Change", "('/Device/Config/Name', 'Hall', 's')");  // nobody tells the panel
        if (asks) panel.ask(kesto::Write{secret_key, "s"});
        panel.expect(asks ? Texts{"*", "*", "recovered"} : Texts{"lost: the connection to * is gone", "recovered"});
        EXPECT_NE(panel.client->ports(), before);
        before = panel.client->ports();
    }
    settle(panel, gateway);
    EXPECT_EQ(panel.shown[name_key], "Hall");
}

struct AnsweredCase {
    const char *fault, *outcome;
    kesto::Operation operation;
};
static const AnsweredCase answered_cases[] = {
    {"write=late:300",    "done",        kesto::Write{name_key, "Hall"}                                              },
    {"read=late:300",     "done",        kesto::Read{name_key}                                                       },
    {"write=error",       "refused",     kesto::Write{name_key, "Stage"}                                             },
    {"write=refuse",      "refused",     kesto::Write{name_key, "Stage"}                                             },
    {"write=none",        "not_allowed", kesto::Write{serial_key, "1"}                                               },
    {"write=none",        "refused",     kesto::Write{"/Nowhere", "1"}                                               },
    {"write=none",        "refused",     kesto::Write{name_key, std::nullopt}                                        },
    {"write=none",        "invalid",     kesto::Write{name_key, "\xff"}                                              },
    {"read=error",        "refused",     kesto::Read{name_key}                                                       },
    {"read=none",         "not_allowed", kesto::Read{"/Device/Audio", kesto::read_branch}                            },
    {"multi-write=error", "refused",     kesto::MultiWrite{{{name_key, "Bar"}}}                                      },
    {"multi-write=type",  "partly",      kesto::MultiWrite{{{name_key, name_value}}}                                 },
    {"multi-write=none",  "partly",      kesto::MultiWrite{{{name_key, "Bar"}, {"/Nowhere", "1"}, {secret_key, "s"}}}},
    {"multi-write=none",  "not_allowed", kesto::MultiWrite{{{name_key, "Stage"}, {serial_key, "1"}}}                 },
    {"multi-write=none",  "done",        kesto::MultiWrite{{{name_key, "Yard"}, {secret_key, "t"}}}                  },
    {"read=none",         "invalid",     kesto::Login{}                                                              },
};

TEST(Answer, SaysWhatBecameOfTheRequest) {
    Connected connected;
    auto &[gateway, panel] = connected;
    for (const AnsweredCase &row : answered_cases) {
        SCOPED_TRACE(row.fault);
        gateway.set_fault(row.fault);
        panel.ask(row.operation);
        panel.expect({row.outcome});
        gateway.set_fault(std::string(row.fault, strcspn(row.fault, "=")) + "=none");
        if (row.fault == std::string_view("multi-write=type")) panel.read_all();  // it does not say what it has done
        settle(panel, gateway);
        EXPECT_EQ(panel.seen, Texts{});
    }
}

// What others were refused meanwhile may be carried out all the same.
TEST(Standstill, OfTheDeviceIsAReasonToReadAgain) {
    kesto::ClientOptions options = panel_options();
    options.answer_limit_ms = 70000;
    Connected connected(options);
    auto &[gateway, panel] = connected;
    gateway.set_fault("write=late:300");
    panel.ask(kesto::Write{name_key, "Hall"});
    pass(panel.loop);
    gateway.device().expect_log({"Write (0, '/Device/Config/Name', 'Hall')"});
    skip(20000);
    panel.expect({"read_again: the device stood still*", "done"});
}

// Silent: given up after the limit, and whether it was carried out is not known.
TEST(Silence, OfTheDataServiceEndsTheSessionAndNotTheClient) {
    Connected connected;
    auto &[gateway, panel] = connected;
    gateway.set_fault("write=never");
    panel.ask(kesto::Write{name_key, "Hall"});
    pass(panel.loop);
    gateway.device().expect_log({"Write (0, '/Device/Config/Name', 'Hall')"});
    pass(panel.loop, answer_limit_ms);
    panel.expect({"unknown", "lost: no answer from 127.0.0.1:62001 within 8 s"});
    pass(panel.loop);
    gateway.device().send_signal(SIGKILL);  // ends the service's waiting
    gateway.device().wait_exit();
    gateway.start_device();
    panel.expect({"recovered"});
    gateway.expect_log({"free cl_id", "[panel-1] authenticating *"});  // logged out before the login
    settle(panel, gateway);
    EXPECT_EQ(panel.seen, Texts{});
}

// The loopback interface of the sandbox.
static void plug_in(bool in) {
    const int any = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = in ? IFF_UP : 0;
    EXPECT_EQ(ioctl(any, SIOCSIFFLAGS, &request), 0);
    close(any);
}

// KESTO_CLIENT_CABLE_S seconds; the connection outlives a short time.
TEST(Cable, IsPulledForAWhile) {
    if (getenv("ACCESS_INSIDE") == nullptr) GTEST_SKIP() << "it would be the machine's own network";
    const size_t seconds = number_from("KESTO_CLIENT_CABLE_S", 1), outlived_s = 5;
    Connected connected;
    auto &[gateway, panel] = connected;
    plug_in(false);
    panel.ask(kesto::Write{name_key, "Hall"});
    for (const auto end = Clock::now() + std::chrono::seconds(seconds); Clock::now() < end;) panel.loop.wait(50);
    gateway.control("Change", "('/Device/Config/Networking/Snmp/Secret', 'meanwhile', 's')");
    plug_in(true);
    panel.serve_until_answered();
    settle(panel, gateway);
    EXPECT_TRUE(seconds >= outlived_s || panel.seen == Texts{"done"}) << testing::PrintToString(panel.seen);
    EXPECT_EQ(panel.shown[secret_key], "meanwhile");
}

// A device that stands still, and 9 MiB for it that the network has not taken yet.
TEST(End, WaitsForNothingThatDoesNotCome) {
    Gateway gateway;
    for (const bool closes : {true, false}) {
        std::optional<Panel> panel(std::in_place);
        panel->expect({"connected"});
        settle(*panel, gateway);
        gateway.service().send_signal(SIGSTOP);
        panel->ask(kesto::Write{name_key, std::string(9 << 20, 'x')});
        pass(panel->loop);
        if (closes) {
            panel->client->close([&panel] { panel->seen.emplace_back("closed"); });
            pass(panel->loop, close_limit_ms);
            panel->expect({"unknown", "closed"});
        }
        panel.reset();
        gateway.service().send_signal(SIGCONT);
        gateway.device().expect_log({"client gone: panel-1"});
    }
}

TEST(End, AnswersTheRequestsSoFarAndLogsOut) {
    Connected connected;
    Panel &panel = connected.panel;
    for (const char *value : {"1", "2"}) panel.ask(kesto::Write{name_key, value});
    panel.client->close([&panel] { panel.seen.emplace_back("closed"); });
    panel.ask(kesto::Write{name_key, "3"});
    panel.expect({"not_sent", "done", "done", "closed"});
    connected.gateway.expect_log({"free cl_id"});
    EXPECT_EQ(device_value(connected.gateway, name_key), "2");
}

// First so many that wait in the reader, then what fills the network's buffers, then those that wait in the service.
TEST(SlowReader, IsToldThatEventsWereLost) {
    Connected connected;
    Gateway &gateway = connected.gateway;
    Panel &panel = connected.panel;
    const std::string much(1 << 20, 'x');
    const auto change = [&gateway](const char *value) {
        gateway.call("GeneralDispatch", g_variant_new("(sss)", name_key, value, "s"));
    };
    for (const auto &[count, value] : {
             std::pair(1300, "few"), {64,   much.c_str()},
               {1300, "many"      }
    })
        for (int i = 0; i < count; i++) change(value);
    gateway.control("Change", "('/Device/Config/Name', 'last', 's')");
    settle(panel, gateway);
    panel.expect({"read_again: events were lost"});
    EXPECT_LT(panel.heard, 2000U);
    EXPECT_EQ(panel.shown[name_key], "last");
}

struct NonsenseCase {
    const char *notice;
    bool logs_out_next;  // there may be a session
    Texts (*answer)(const wire::Request &login);
};
static wire::Request with_sequence(wire::Request request, uint64_t sequence) {
    request.set_sequence(sequence);
    return request;
}
static const NonsenseCase nonsense[] = {
    {"not_reachable: *something else than a reply",  true,  [](auto &) { return Texts{"\xff\xff"}; }             },
    {"not_reachable: *something else than a reply",  true,  [](auto &) { return Texts{std::string(65536, 'x')}; }},
    {"not_reachable: *could not make anything of *", true,  [](auto &) { return Texts{""}; }                     },
    {"not_reachable: *something else than a reply",  true,
     [](auto &r) { return Texts(2, reply_to(r, fake_command_port)); }                                            },
    {"not_reachable: *answered request * as 77",     true,
     [](auto &r) { return Texts{reply_to(with_sequence(r, 77), 1)}; }                                            },
    {"refused: log in as *",                         false, [](auto &r) { return Texts{reply_to(r)}; }           },
    {"refused: log in as *",                         false, [](auto &r) { return Texts{reply_to(r, -1)}; }       },
    {"refused: log in as *",                         false, [](auto &r) { return Texts{reply_to(r, 65536)}; }    },
};

TEST(Nonsense, InAnswerToALoginIsToldAndTriedAgain) {
    for (const NonsenseCase &row : nonsense) {
        SCOPED_TRACE(row.notice);
        FakeSocket login(ZMQ_REP, fake_port);
        Panel panel(panel_options(fake_port));
        login.send(row.answer(login.request(panel.loop)));
        panel.expect({row.notice});
        EXPECT_EQ(is_log_out(login.request(panel.loop)), row.logs_out_next);
    }
}

// A panel that is connected to a device of which the test has every word in its hand.
struct FakeDevice {
    FakeSocket login{ZMQ_REP, fake_port}, commands{ZMQ_REP, fake_command_port}, events{ZMQ_PUB, fake_event_port};
    Panel panel{panel_options(fake_port)};

    void let_in(uint32_t change_count) {
        login.send({reply_to(login.request(panel.loop), fake_command_port)});
        commands.send({reply_to(commands.request(panel.loop), 0, change_count)});
    }
};

struct CommandCase {
    Texts seen;
    Texts (*answer)(const wire::Request &request);
};
static const CommandCase commands_answered[] = {
    {{"nonsense", "lost: *something else*", "not_sent"}, [](auto &) { return Texts{"\xff"}; }                         },
    {{"nonsense", "lost: *as 77", "not_sent"},           [](auto &r) { return Texts{reply_to(with_sequence(r, 77))}; }},
    {{"invalid", "invalid"},                             [](auto &) { return Texts{""}; }                             },
    {{"done", "lost: the device was restarted", "*"},    [](auto &r) { return Texts{reply_to(r, 0, 9)}; }             },
};

TEST(Nonsense, InAnswerToARequestEndsTheSession) {
    for (const CommandCase &row : commands_answered) {
        SCOPED_TRACE(testing::PrintToString(row.seen));
        FakeDevice device;
        Panel &panel = device.panel;
        device.let_in(10);
        panel.expect({"connected"});
        panel.ask(kesto::ChangeCount{});
        panel.ask(kesto::ChangeCount{});
        for (size_t i = 0; i < shown_keys.size(); i++)
            device.commands.send({reply_to(device.commands.request(panel.loop), 0, 10, wire::STATUS_UNSUPPORTED)});
        const bool goes_on = row.seen.size() == 2;
        for (int i = 0; i < (goes_on ? 2 : 1); i++)
            device.commands.send(row.answer(device.commands.request(panel.loop)));
        panel.expect(row.seen);
        if (goes_on) continue;
        EXPECT_TRUE(is_log_out(device.login.request(panel.loop)));
    }
}

TEST(Nonsense, OnTheEventPortIsLeftOut) {
    FakeDevice device;
    Panel &panel = device.panel;
    device.let_in(10);
    panel.expect({"connected"});
    wire::Message alarm;
    alarm.mutable_event()->mutable_alarm()->set_channel(5);
    for (; panel.heard == 0; panel.loop.wait(20)) device.events.send({alarm.SerializeAsString()});
    const Texts nonsense_events[] = {Texts{"\xff"}, Texts{""}, Texts(2, "two")};
    for (const Texts &frames : nonsense_events) device.events.send(frames);
    alarm.mutable_event()->mutable_alarm()->set_channel(6);
    device.events.send({alarm.SerializeAsString()});
    serve(panel.loop, "the last alarm", [&] { return panel.last_channel == 6; });
    EXPECT_EQ(panel.seen, Texts{});
}
