// What a program sees of libkesto-client when things go wrong, and that what it shows in the end is what the device
// holds.
//
// Pauses and time limits of the library do not take their time here: the test sets this program's clock forward.
#include <atomic>
#include <csignal>
#include <ctime>
#include <kesto-client/browser.h>
#include <kesto-client/client.h>
#include <kesto-client/session.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <zmq.h>

#include <gtest/gtest.h>

#include "harness/discovery.h"
#include "harness/port.h"
#include "harness/random_steps.h"
#include "harness/remote_client.h"

static std::atomic<int64_t> skipped_ms = 0;

// In the place of the C library's: for the libraries, too.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec *time) noexcept {
    const long result = syscall(SYS_clock_gettime, clock, time);
    const int64_t ns = time->tv_nsec + (clock == CLOCK_MONOTONIC ? skipped_ms.load() : 0) * 1'000'000;
    time->tv_sec += ns / 1'000'000'000;
    time->tv_nsec = ns % 1'000'000'000;
    return static_cast<int>(result);
}

static constexpr int pause_ms = 1250, connect_limit_ms = 5000, answer_limit_ms = 8000;
static constexpr int close_limit_ms = 5000, settled_ms = 600;
static constexpr const char *here = kesto::loopback_address, *secret_key = "/Device/Config/Networking/Snmp/Secret",
                            *serial_key = "/Device/Config/Hardware/Model/Serial";
static const Texts shown_keys = {name_key, secret_key, serial_key};  // the last is not for the panel to write
static constexpr BusObject data_service = {"com.quillmont.kesto.Data", "/com/quillmont/kesto/Data",
                                           "com.quillmont.kesto.Data.Service"};
static constexpr const char *notice_names[] = {"connected",     "lost",    "recovered", "read_again",
                                               "not_reachable", "refused", "invalid"};
static constexpr const char *outcome_names[] = {"done",    "partly",   "not_allowed", "refused",  "unsupported",
                                                "invalid", "not_sent", "unknown",     "nonsense", "interrupted"};

static kesto::ClientOptions panel_options(int port = authentication_port) {
    kesto::ClientOptions options;
    options.login = {here, port};
    options.client_id = "panel-1";
    options.user = "quillmont";
    options.password = "tandrivel";
    options.answer_limit_ms = answer_limit_ms;
    options.longest_pause_ms = 1000;
    return options;
}

// Serves the loop until that is so.
static void serve(kesto::Loop &loop, const std::string &what, const std::function<bool()> &is_so, Where where) {
    const auto real_now = [] { return Clock::now() - std::chrono::milliseconds(skipped_ms); };
    for (const auto end = real_now() + event_timeout(); !is_so(); loop.wait(100))
        if (real_now() > end) abandon("in vain: " + what, where);
}

// Lets so much time go by, in which nothing comes from elsewhere.
static void pass(kesto::Loop &loop, int time_ms) {
    const auto see_to_all = [&loop] {
        for (int i = 0; i < 4; i++) loop.wait(0);
    };
    see_to_all();
    skipped_ms += time_ms;
    see_to_all();
}

// A program that shows some values, and does what the library's headers tell it to do.
struct Panel {
    kesto::Loop loop;
    std::function<void(kesto::Notice)> judge;  // hears of each notice first
    Texts seen;                                // notices and outcomes
    std::map<std::string, std::string> shown;
    std::optional<kesto::Client> client;
    size_t asked = 0, answered = 0, heard = 0;
    int32_t fence = 0;

    explicit Panel(kesto::ClientOptions options = panel_options()) {
        kesto::ClientCallbacks callbacks;
        callbacks.notice = [this](kesto::Notice notice, const std::string &sentence) { take_notice(notice, sentence); };
        callbacks.published = [this](const kesto::Published &published) { take(published); };
        callbacks.value = [this](const kesto::Value &value) { shown[value.key] = value.text; };
        client.emplace(loop, std::move(options), std::move(callbacks));
    }

    void take_notice(kesto::Notice notice, const std::string &sentence) {
        const auto number = static_cast<size_t>(notice);
        seen.push_back(notice_names[number] + (sentence.empty() ? "" : ": " + sentence));
        if (judge) judge(notice);
        if (notice == kesto::Notice::invalid) return;
        if (number > static_cast<size_t>(kesto::Notice::read_again) || notice == kesto::Notice::lost)
            skipped_ms += pause_ms;
        else read_all();
    }
    void read_all() {
        for (const std::string &key : shown_keys) {
            asked++;
            client->ask(kesto::Read{key}, [this, key](const kesto::Answer &answer) {
                answered++;
                if (answer) shown[key] = answer.get<kesto::Value>()->text;
                else shown.erase(key);
            });
        }
    }
    void apply(const kesto::Published &published) {
        if (const auto *change = std::get_if<kesto::Change>(&published)) shown[change->key] = change->value;
        const auto *reply = std::get_if<kesto::Reply>(&published);
        if (reply == nullptr || reply->status != kesto::Status::ok) return;
        if (const auto *write = std::get_if<kesto::WriteResult>(&reply->result)) shown[write->key] = write->value;
        if (const auto *several = std::get_if<kesto::MultiWriteResult>(&reply->result))
            for (size_t i = 0; i < std::min(several->pairs.size(), several->results.size()); i++)
                if (several->results[i] == kesto::pair_was_written)
                    shown[several->pairs[i].key] = several->pairs[i].value;
    }
    void take(const kesto::Published &published) {
        heard++;
        apply(published);
        if (const auto *alarm = std::get_if<kesto::Alarm>(&published)) fence = alarm->channel;
    }
    void ask(kesto::Operation operation) {
        asked++;
        client->ask(std::move(operation), [this](const kesto::Answer &answer) {
            answered++;
            apply(answer.reply);
            seen.emplace_back(outcome_names[static_cast<size_t>(answer.outcome)]);
        });
    }
    kesto::Ports connect(Where where = Where::current()) {
        expect({"connected"}, where);
        return client->ports();
    }
    void expect(const Texts &patterns, Where where = Where::current()) {
        serve(
            loop, patterns.back(), [&] { return seen.size() >= patterns.size(); }, where);
        for (size_t i = 0; i < seen.size(); i++) {
            const bool fits = i < patterns.size() && g_pattern_match_simple(patterns[i].c_str(), seen[i].c_str());
            if (!fits) ADD_FAILURE_AT(where.file, where.line) << "saw " << testing::PrintToString(seen);
        }
        seen.clear();
    }
    void serve_until_answered(Where where = Where::current()) {
        serve(
            loop, "answers", [this] { return answered == asked; }, where);
    }
};

static std::string device_value(Gateway &gateway, const std::string &key) {
    const std::string reply =
        gateway.bus().call(data_service, "Read", g_variant_new("(us)", kesto::read_this_key_alone, key.c_str())).reply;
    return reply.substr(0, 3) == "(<'" ? reply.substr(3, reply.size() - 7) : reply;
}

// Until all has come that was published and asked, and the library has had the time to notice what is missing.
static void settle(Panel &panel, Gateway &gateway, Where where = Where::current()) {
    static int32_t number = 2'000'000;  // channels that no device has
    serve(
        panel.loop, "connected", [&] { return panel.client->connected(); }, where);
    const int32_t first = number + 1;
    serve(
        panel.loop, "the fence",
        [&] {
            if (panel.fence >= first) return true;
            gateway.call("Dispatch", g_variant_new("(idi)", 40, 0.0, ++number),
                         where);  // the last may have come too early
            return panel.loop.wait(40) && panel.fence >= first;
        },
        where);
    for (int i = 0; i < 3; i++) {
        pass(panel.loop, settled_ms);
        panel.asked++;
        panel.client->ask(kesto::ChangeCount{}, [&panel](const kesto::Answer &) { panel.answered++; });
        panel.serve_until_answered(where);
    }
    for (const std::string &key : shown_keys)
        EXPECT_EQ(panel.shown[key], device_value(gateway, key)) << key << ", line " << where.line;
}

static void kill_service(Gateway &gateway) {
    gateway.service().send_signal(SIGKILL);
    gateway.service().wait_exit();
}

// A ZeroMQ socket of a device whose answers the test gives.
class FakeSocket {
  public:
    FakeSocket(int type, int port) : socket_(zmq_socket(context(), type), zmq_close) {
        const int linger_ms = 0;
        zmq_setsockopt(socket_.get(), ZMQ_LINGER, &linger_ms, sizeof linger_ms);
        const std::string endpoint = "tcp://127.0.0.1:" + std::to_string(port);
        const auto is_bound = [&] { return zmq_bind(socket_.get(), endpoint.c_str()) == 0; };
        for (const auto end = deadline(); !is_bound();)  // the one before closes its port a little later
            if (Clock::now() > end) throw Abandoned("cannot bind " + endpoint);
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

static std::string reply_to(const wire::Request &request, int command_port = 0,
                                             uint32_t change_count = 0) {
    wire::Message message;
    wire::Reply &reply = *message.mutable_reply();
    reply.set_sequence(request.sequence());
    reply.set_status(wire::STATUS_OK);
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
    panel.expect({"not_reachable: nothing takes connections at 127.0.0.1:60000"});
    pass(panel.loop, connect_limit_ms);  // again, and not said again
    gateway.start_service();
    skipped_ms += pause_ms;
    panel.connect();
    settle(panel, gateway);
    EXPECT_EQ(panel.seen, Texts{});
}

// The answer to the login goes through the test's hands.
TEST(Restart, BeforeTheFirstRequest) {
    Gateway gateway;
    FakeSocket login(ZMQ_REP, fake_port);
    Panel panel(panel_options(fake_port));
    const std::string answer = RemoteClient("relay").exchange(Channel::authentication, {login.frame(panel.loop)});
    kill_service(gateway);
    login.send({answer});
    for (size_t i = 0; panel.seen.empty() && i < 200; i++) pass(panel.loop, connect_limit_ms / 50);
    panel.expect({"not_reachable: *127.0.0.1:62001*"});
    gateway.start_service();
    for (const bool out : {true, false}) {
        const std::string request = login.frame(panel.loop);
        wire::Message message;
        EXPECT_TRUE(message.ParseFromString(request));
        EXPECT_EQ(is_log_out(message.request()), out);
        login.send({RemoteClient("relay").exchange(Channel::authentication, {request})});
    }
    panel.connect();
    settle(panel, gateway);
}

TEST(Restart, DuringARequest) {
    Gateway gateway;
    Panel panel;
    panel.connect();
    settle(panel, gateway);
    gateway.set_fault("write=late:600000");
    panel.ask(kesto::Write{name_key, "Hall"});
    panel.ask(kesto::Write{name_key, "Stage"});
    pass(panel.loop, 0);
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
    Gateway gateway;
    Panel panel;
    const kesto::Ports before = panel.connect();
    settle(panel, gateway);
    kill_service(gateway);
    gateway.start_service();
    skipped_ms += 3000;  // more than ZeroMQ's pause between two connects
    const kesto::Endpoint login = {here, authentication_port};
    kesto::Session other(panel.loop, {login, "other", "root", "vormi", {}});
    ASSERT_TRUE(other.open({}));
    EXPECT_EQ(other.ports(), before);
    EXPECT_TRUE(other.ask(kesto::ChangeCount{}));
    panel.ask(kesto::Write{serial_key, "stolen"});
    panel.expect({"not_sent", "lost: *closed the connection", "recovered"});
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
    {"invalid: '127.0.1' is no IPv4 address",      [](auto &o) { o.login.address = "127.0.1"; }         },
    {"invalid: '::1' is no IPv4 address",          [](auto &o) { o.login.address = "::1"; }             },
    {"invalid: 0 is no port",                      [](auto &o) { o.login.port = 0; }                    },
    {"invalid: 65536 is no port",                  [](auto &o) { o.login.port = 65536; }                },
    {"invalid: there is no client id",             [](auto &o) { o.client_id = ""; }                    },
    {"invalid: *NUL byte or is not UTF-8",         [](auto &o) { o.client_id = std::string("a\0b", 3); }},
    {"invalid: *NUL byte or is not UTF-8",         [](auto &o) { o.password = "\xff"; }                 },
    {"invalid: *text holds a NUL byte or is not*", [](auto &o) { o.static_discovery = "\xc3"; }         },
    {"invalid: a time is too short",               [](auto &o) { o.answer_limit_ms = 0; }               },
    {"invalid: a time is too short",               [](auto &o) { o.sign_of_life_ms = -1; }              },
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
    pass(panel.loop, pause_ms);
    EXPECT_EQ(rival.read(name_key).value().text(), name_value);  // nobody has logged it out
    rival.log_out();
    skipped_ms += pause_ms;
    panel.connect();
    settle(panel, gateway);
}

TEST(Refusal, OfThePasswordLeavesNothingBehind) {
    Gateway gateway;
    kesto::ClientOptions options = panel_options();
    options.password = "vormi";
    Panel panel(std::move(options));
    panel.expect({"refused: *"});
    const auto attempts = [&gateway] {
        const std::string log = gateway.service().text(STDERR_FILENO), refusal = "Unable to authenticate";
        return log.find(refusal) == log.rfind(refusal) ? 1 : 2;
    };
    serve(panel.loop, "another attempt", [&] { return attempts() == 2; }, Where::current());
    panel.client->close([&panel] { panel.seen.emplace_back("closed"); });
    panel.expect({"closed"});  // it was refused as before, and that was not said again
}

// Another program logs the id out: the panel comes back, as often as that happens, with a session of its own.
TEST(SharedId, IsLoggedOutByAnotherProgram) {
    Gateway gateway;
    Panel panel;
    kesto::Ports before = panel.connect();
    for (const bool asks : {false, true}) {
        settle(panel, gateway);
        RemoteClient("panel-1").log_out();
        gateway.control("Change", "('/Device/Config/Name', 'Hall', 's')");  // nobody tells the panel
        if (asks) panel.ask(kesto::Write{secret_key, "s"});
        panel.expect(asks ? Texts{"*", "*", "recovered"} : Texts{"lost: *closed the connection", "recovered"});
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
    {"read=none",         "done",        kesto::Read{"/Device/Config", kesto::read_branch}                           },
    {"multi-write=error", "refused",     kesto::MultiWrite{{{name_key, "Bar"}}}                                      },
    {"multi-write=type",  "partly",      kesto::MultiWrite{{{name_key, name_value}}}                                 },
    {"multi-write=none",  "partly",      kesto::MultiWrite{{{name_key, "Bar"}, {"/Nowhere", "1"}, {secret_key, "s"}}}},
    {"multi-write=none",  "not_allowed", kesto::MultiWrite{{{name_key, "Stage"}, {serial_key, "1"}}}                 },
    {"multi-write=none",  "done",        kesto::MultiWrite{{{name_key, "Yard"}, {secret_key, "t"}}}                  },
    {"read=none",         "invalid",     kesto::Login{}                                                              },
    {"read=none",         "done",        kesto::Authorize{kesto::operation_read, name_key, false}                    },
};

TEST(Answer, SaysWhatBecameOfTheRequest) {
    Gateway gateway;
    Panel panel;
    panel.connect();
    settle(panel, gateway);
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

// Silent: given up after the limit, and whether it was carried out is not known.
TEST(Silence, OfTheDataServiceEndsTheSessionAndNotTheClient) {
    Gateway gateway;
    Panel panel;
    panel.connect();
    settle(panel, gateway);
    gateway.set_fault("write=never");
    panel.ask(kesto::Write{name_key, "Hall"});
    pass(panel.loop, 0);
    gateway.device().expect_log({"Write (0, '/Device/Config/Name', 'Hall')"});
    pass(panel.loop, answer_limit_ms);
    panel.expect({"unknown", "lost: no answer from 127.0.0.1:62001 within 8 s"});
    pass(panel.loop, 0);
    gateway.device().send_signal(SIGKILL);  // ends the service's waiting
    gateway.device().wait_exit();
    gateway.start_device();
    panel.expect({"recovered"});
    gateway.expect_log({"free cl_id", "[panel-1] authenticating *"});  // logged out before the login
    settle(panel, gateway);
    EXPECT_EQ(panel.seen, Texts{});
}

// A device that stands still, and 9 MiB for it that the network has not taken yet.
TEST(End, WaitsForNothingThatDoesNotCome) {
    Gateway gateway;
    for (const bool closes : {true, false}) {
        Panel panel;
        panel.connect();
        settle(panel, gateway);
        gateway.service().send_signal(SIGSTOP);
        panel.ask(kesto::Write{name_key, std::string(9 << 20, 'x')});
        pass(panel.loop, 0);
        if (closes) {
            panel.client->close([&panel] { panel.seen.emplace_back("closed"); });
            pass(panel.loop, close_limit_ms);
            panel.expect({"unknown", "closed"});
        }
        panel.client.reset();
        gateway.service().send_signal(SIGCONT);
        gateway.device().expect_log({"client gone: panel-1"});
    }
}

TEST(End, AnswersTheRequestsSoFarAndLogsOut) {
    Gateway gateway;
    Panel panel;
    panel.connect();
    panel.serve_until_answered();
    for (const char *value : {"1", "2"}) panel.ask(kesto::Write{name_key, value});
    panel.client->close([&panel] { panel.seen.emplace_back("closed"); });
    panel.ask(kesto::Write{name_key, "3"});
    panel.expect({"not_sent", "done", "done", "closed"});
    gateway.expect_log({"free cl_id"});
    EXPECT_EQ(device_value(gateway, name_key), "2");
}

// First so many that wait in the reader, then what fills the network's buffers, then those that wait in the service.
TEST(SlowReader, IsToldThatEventsWereLost) {
    Gateway gateway;
    Panel panel;
    panel.connect();
    settle(panel, gateway);
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
    {"not_reachable: *something else than a reply",  true,  [](auto &) { return Texts{"\xff\xff"}; }                        },
    {"not_reachable: *something else than a reply",  true,  [](auto &) { return Texts{std::string(65536, 'x')}; }            },
    {"not_reachable: *could not make anything of *", true,  [](auto &) { return Texts{""}; }                                 },
    {"not_reachable: *something else than a reply",  true,  [](auto &r) { return Texts(2, reply_to(r, fake_command_port)); } },
    {"not_reachable: *answered request * as 77",     true,  [](auto &r) { return Texts{reply_to(with_sequence(r, 77), 1)}; } },
    {"refused: log in as *",                         false, [](auto &r) { return Texts{reply_to(r)}; }                       },
    {"refused: log in as *",                         false, [](auto &r) { return Texts{reply_to(r, -1)}; }                   },
    {"refused: log in as *",                         false, [](auto &r) { return Texts{reply_to(r, 65536)}; }                },
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
    void answer_reads(uint32_t change_count) {
        for (size_t i = 0; i < shown_keys.size(); i++)
            commands.send({reply_to(commands.request(panel.loop), 0, change_count)});
    }
};

struct CommandCase {
    Texts seen;
    Texts (*answer)(const wire::Request &request);
};
static const CommandCase commands_answered[] = {
    {{"nonsense", "lost: *something else*", "not_sent"}, [](auto &) { return Texts{"\xff"}; }                               },
    {{"nonsense", "lost: *as 77", "not_sent"},           [](auto &r) { return Texts{reply_to(with_sequence(r, 77))}; }      },
    {{"invalid", "invalid"},                             [](auto &) { return Texts{""}; }                                   },
    {{"done", "lost: the device was restarted", "*"},    [](auto &r) { return Texts{reply_to(r, 0, 9)}; }                   },
};

TEST(Nonsense, InAnswerToARequestEndsTheSession) {
    for (const CommandCase &row : commands_answered) {
        SCOPED_TRACE(testing::PrintToString(row.seen));
        FakeDevice device;
        Panel &panel = device.panel;
        device.let_in(10);
        panel.connect();
        panel.ask(kesto::ChangeCount{});
        panel.ask(kesto::ChangeCount{});
        for (size_t i = 0; i < shown_keys.size(); i++) {
            const wire::Request read = device.commands.request(panel.loop);
            EXPECT_TRUE(read.has_read());
            wire::Message refusal;
            EXPECT_TRUE(refusal.ParseFromString(reply_to(read, 0, 10)));
            refusal.mutable_reply()->set_status(wire::STATUS_UNSUPPORTED);
            device.commands.send({refusal.SerializeAsString()});
        }
        const bool goes_on = row.seen.size() == 2;
        for (int i = 0; i < (goes_on ? 2 : 1); i++) device.commands.send(row.answer(device.commands.request(panel.loop)));
        panel.expect(row.seen);
        if (goes_on) continue;
        EXPECT_TRUE(is_log_out(device.login.request(panel.loop)));
    }
}

TEST(Nonsense, OnTheEventPortIsLeftOut) {
    FakeDevice device;
    Panel &panel = device.panel;
    device.let_in(10);
    panel.connect();
    wire::Message alarm;
    alarm.mutable_event()->mutable_alarm()->set_channel(5);
    for (; panel.heard == 0; panel.loop.wait(20)) device.events.send({alarm.SerializeAsString()});
    pass(panel.loop, 0);
    const size_t before = panel.heard;
    for (const Texts &frames : {Texts{"\xff"}, {""}, {"a", "b"}}) device.events.send(frames);
    alarm.mutable_event()->mutable_alarm()->set_channel(6);
    device.events.send({alarm.SerializeAsString()});
    serve(panel.loop, "the last alarm", [&] { return panel.fence == 6; }, Where::current());
    EXPECT_LE(panel.heard, before + 21);  // alarms of channel 5 may still have been on their way
    EXPECT_EQ(panel.seen, Texts{});
}

// Somebody who answers discovery at an address.
class FakeDiscovery {
  public:
    explicit FakeDiscovery(uint32_t address) : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const int yes = 1;
        setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_port = htons(8004);
        to.sin_addr.s_addr = htonl(address);
        EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr *>(&to), sizeof to), 0);
    }
    ~FakeDiscovery() { close(socket_); }
    void hear(kesto::Loop &loop) {
        char bytes[9000];
        socklen_t size = sizeof browser_;
        serve(loop, "a discovery request", [&] {
            return recvfrom(socket_, bytes, sizeof bytes, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&browser_), &size) > 0;
        }, Where::current());
    }
    void say(const std::string &text) {
        sendto(socket_, text.data(), text.size(), 0, reinterpret_cast<sockaddr *>(&browser_), sizeof browser_);
    }

  private:
    int socket_;
    sockaddr_in browser_ = {};
};

// Field 13 is the project information.
static std::string discovery_reply(const std::string &name, const std::string &serial, const std::string &key = "",
                                   const std::string &port = "ZMQ:60000", const std::string &project = "") {
    std::string text = "@?DM";
    for (const std::string &field : {std::string("1"), std::string("o"), port, std::string("ZMQ:0"), key, std::string("?"),
                                     std::string(), std::string(), name, serial, std::string("e"), project, std::string()})
        text += '\x1c' + field;
    return text + '!';
}

struct Browsing {
    kesto::Loop loop;
    Texts seen;
    std::optional<kesto::Browser> browser;

    explicit Browsing(kesto::BrowserOptions options) {
        kesto::BrowserCallbacks callbacks;
        callbacks.news = [this](kesto::News news, const kesto::Device &device) {
            const char *const names[] = {"appeared ", "changed ", "vanished "};
            std::string text = names[static_cast<int>(news)] + device.amplifier_name + (device.cut ? ", cut" : "");
            for (const std::string &address : device.addresses) text += ' ' + address;
            seen.push_back(text);
        };
        browser.emplace(loop, std::move(options), std::move(callbacks));
    }
    void expect(const Texts &texts) {
        pass(loop, 0);
        EXPECT_EQ(std::exchange(seen, {}), texts);
    }
};

struct SayCase {
    int who;
    std::string text;
    Texts news;
};

TEST(Browser, TellsWhatIsNewAndNothingElse) {
    const std::string cut = discovery_reply("Long", "2", "", "ZMQ:1", std::string(9000, 'p')).substr(0, 8191);
    const SayCase rows[] = {
        {0, discovery_reply("Hall", "1"),                   {"appeared Hall 127.0.0.2"}     },
        {1, discovery_reply("Hall", "1"),                   {}                              },
        {0, discovery_reply("Hall", "1", "AB"),             {}                              },
        {0, discovery_reply("Stage", "1"),                  {"changed Stage 127.0.0.2 127.0.0.3"}},
        {0, "",                                             {}                              },
        {0, "@?D",                                          {}                              },
        {0, discovery_reply("Bad", "3").substr(0, 20),      {}                              },
        {0, discovery_reply("Bad", "3", "", "ZMQ:65536"),   {}                              },
        {0, discovery_reply("Bad", "3", "", "60000"),       {}                              },
        {0, discovery_reply("Bad", "3", "", "ZMQ:9x"),      {}                              },
        {0, "@?family" + std::string(13, '\x1c') + "!",     {}                              },
        {1, cut,                                            {"appeared Long, cut 127.0.0.3"}},
        {1, discovery_reply("Odd", "", "", "ZMQ:0", "!\x1c!"), {"appeared Odd 127.0.0.3"}   },
    };
    FakeDiscovery fakes[] = {FakeDiscovery(0x7f000002), FakeDiscovery(0x7f000003)};
    kesto::BrowserOptions options;
    options.broadcast = false;
    options.addresses = {"127.0.0.2", "127.0.0.3"};
    Browsing browsing(options);
    for (FakeDiscovery &fake : fakes) fake.hear(browsing.loop);
    for (const SayCase &row : rows) {
        SCOPED_TRACE(row.text.substr(0, 50));
        fakes[row.who].say(row.text);
        browsing.expect(row.news);
    }
    pass(browsing.loop, options.interval_ms);
    fakes[1].say(discovery_reply("Stage", "1"));  // no longer at the other address
    browsing.expect({});
    pass(browsing.loop, options.interval_ms);
    browsing.expect({"changed Stage 127.0.0.3"});
    for (int passed = 0; passed < options.vanished_after_ms; passed += options.interval_ms)
        pass(browsing.loop, options.interval_ms);
    EXPECT_EQ(browsing.seen.size(), 3U);
    EXPECT_TRUE(browsing.browser->devices().empty());
    browsing.seen.clear();
    fakes[0].say(discovery_reply("Stage", "1"));
    browsing.expect({"appeared Stage 127.0.0.2"});
}

TEST(Browser, FindsTheServiceOnceAndAgain) {
    Gateway gateway;
    kesto::BrowserOptions options;
    options.addresses = {here};
    Browsing browsing(options);
    const auto expect_news = [&browsing](const char *text) {
        serve(browsing.loop, text, [&] { return !browsing.seen.empty(); }, Where::current());
        for (int i = 0; i < 3; i++) pass(browsing.loop, 500);  // all datagrams of the round
        EXPECT_EQ(std::exchange(browsing.seen, {}), Texts{text});
    };
    expect_news("appeared  127.0.0.1");
    EXPECT_EQ(kesto::login_endpoint(browsing.browser->devices().front()), (kesto::Endpoint{here, authentication_port}));
    kill_service(gateway);
    gateway.control("Change", "('/Device/Config/PROJECT_INFO', 'Hall', 's')");
    gateway.start_service();
    browsing.browser->look_again();
    expect_news("changed  127.0.0.1");
    EXPECT_EQ(browsing.browser->devices().front().project_information, "Hall");
}

// A walk over all these faults, beside a model of what the panel may be told. Each cause lasts until the walk has settled.
enum Cause : unsigned { loss = 1, gap = 2, reload = 4, rival = 8, faulty = 16 };

class Walk {
  public:
    explicit Walk(unsigned seed) : random_(seed) { begin_service(), begin_panel(); }

    void step() {
        const Step &chosen = steps_[choice_(random_)];
        trail_ += std::string(chosen.name) + '\n';
        (this->*chosen.take)();
    }
    void settle() {
        if (!running_) begin_service();
        if (rival_) end_rival();
        for (const char *method : {"read", "write", "multi-write"}) gateway_.set_fault(method + std::string("=none"));
        serve(panel_->loop, "connected", [this] { return panel_->client->connected(); }, Where::current());
        panel_->serve_until_answered();
        if (panel_->shown.size() < shown_keys.size()) panel_->read_all();  // what a fault has refused
        ::settle(*panel_, gateway_);
        causes_ = 0;
        panel_->seen.clear();
    }
    std::string last_steps() const { return trail_.substr(trail_.size() - std::min<size_t>(trail_.size(), 400)); }

  private:
    struct Step {
        const char *name;
        double weight;
        void (Walk::*take)();
    };
    static const Step steps_[];
    static std::discrete_distribution<size_t> choice_;

    size_t below(size_t end) { return random_() % end; }
    std::string key() { return shown_keys[below(shown_keys.size())]; }
    std::string value() { return "v" + std::to_string(++number_); }

    void judge(kesto::Notice notice) {
        const bool was_up = std::exchange(up_, notice <= kesto::Notice::read_again && notice != kesto::Notice::lost);
        const bool first = !std::exchange(ever_up_, ever_up_ || up_);
        const auto told_because = [this](unsigned causes) { return (causes_ & causes) != 0; };
        bool right = false;
        switch (notice) {
            case kesto::Notice::connected: right = first; break;
            case kesto::Notice::recovered: right = !first && !was_up; break;
            case kesto::Notice::lost: right = was_up && told_because(loss); break;
            case kesto::Notice::read_again: right = was_up && told_because(gap | reload | faulty); break;
            case kesto::Notice::not_reachable: right = !was_up && told_because(loss); break;
            case kesto::Notice::refused: right = !was_up && told_because(rival); break;
            case kesto::Notice::invalid: break;
        }
        if (up_ && !was_up) causes_ |= gap;  // what is published before the subscription stands is missed
        EXPECT_TRUE(right) << panel_->seen.back() << ", causes " << causes_;
        trail_ += "  " + panel_->seen.back() + '\n';
    }
    void ask(kesto::Operation operation, bool allowed) {
        panel_->asked++;
        const bool connected = panel_->client->connected();
        panel_->client->ask(std::move(operation), [this, allowed, connected](const kesto::Answer &answer) {
            panel_->answered++;
            panel_->apply(answer.reply);
            const bool was_lost = (causes_ & loss) != 0;
            const auto is = [&answer](kesto::Outcome outcome) { return answer.outcome == outcome; };
            bool right = answer ? allowed : was_lost && is(kesto::Outcome::unknown);
            if (is(kesto::Outcome::not_sent)) right = was_lost || !connected;
            if (is(kesto::Outcome::not_allowed)) right = !allowed;
            if (is(kesto::Outcome::refused)) right = (causes_ & faulty) != 0 || (was_lost && !allowed);
            EXPECT_TRUE(right) << answer.sentence;
        });
    }
    void write() {
        const std::string one = key();
        ask(kesto::Write{one, value()}, one != serial_key);
    }
    void multi_write() {
        const std::string one = key(), two = key();
        ask(kesto::MultiWrite{{{one, value()}, {two, value()}}}, one != serial_key && two != serial_key);
    }
    void read() { ask(kesto::Read{key()}, true); }
    void other_writes() {
        if (running_) other_->write(key(), value());
    }
    void device_changes() {
        const std::string one = key(), what = value();
        gateway_.control("Change", ("('" + one + "', '" + what + "', 's')").c_str());
        if (running_) gateway_.expect_log({"DBUS: *"});
    }
    void load_snapshot() {
        causes_ |= reload;
        gateway_.control("LoadSnapshot", "(uint32 7,)");
        if (running_) gateway_.expect_log({"DBUS: *"});
    }
    void look() { panel_->loop.wait(0); }
    void answers() { panel_->serve_until_answered(); }
    void begin_service() {
        gateway_.start_service();
        running_ = true;
        other_.emplace("other");
        other_->log_in();
        if (!panel_ || up_) return;
        pass(panel_->loop, connect_limit_ms);
        pass(panel_->loop, pause_ms);
    }
    void end_service() {
        if (!running_) return;
        causes_ |= loss;
        kill_service(gateway_);
        running_ = false;
        rival_.reset();
    }
    void restart() {
        end_service();
        begin_service();
    }
    void log_out() {
        causes_ |= loss;
        if (running_) RemoteClient("panel-1").log_out();
    }
    void begin_rival() {
        if (!running_ || rival_) return;
        causes_ |= rival | loss;
        rival_.emplace("panel-1");
        rival_->log_out();
        rival_->log_in({.connect = false});
    }
    void end_rival() {
        causes_ |= loss;
        rival_->log_out();
        rival_.reset();
    }
    void fail() {
        static const char *const faults[] = {"read=error",   "write=error", "multi-write=error", "read=late:5",
                                             "write=late:5", "read=none",   "write=refuse",      "multi-write=none"};
        causes_ |= faulty;
        gateway_.set_fault(faults[below(std::size(faults))]);
    }
    void begin_panel() {
        if (panel_) causes_ |= loss;  // the new one may meet the session of the one before
        panel_.emplace();
        panel_->judge = [this](kesto::Notice notice) { judge(notice); };
        up_ = ever_up_ = false;
    }

    std::mt19937 random_;
    Gateway gateway_{{.with_service = false}};
    std::optional<RemoteClient> other_, rival_;
    std::optional<Panel> panel_;
    unsigned causes_ = 0, number_ = 0;
    bool running_ = false, up_ = false, ever_up_ = false;
    std::string trail_;
};

const Walk::Step Walk::steps_[] = {
    {"write",          20,  &Walk::write         },
    {"multi-write",    8,   &Walk::multi_write   },
    {"read",           5,   &Walk::read          },
    {"other writes",   12,  &Walk::other_writes  },
    {"device changes", 12,  &Walk::device_changes},
    {"snapshot",       1,   &Walk::load_snapshot },
    {"look",           20,  &Walk::look          },
    {"answers",        5,   &Walk::answers       },
    {"restart",        2,   &Walk::restart       },
    {"end service",    1,   &Walk::end_service   },
    {"log-out",        2,   &Walk::log_out       },
    {"rival",          1,   &Walk::begin_rival   },
    {"fault",          3,   &Walk::fail          },
    {"new panel",      1,   &Walk::begin_panel   },
    {"settle",         7,   &Walk::settle        },
};
std::discrete_distribution<size_t> Walk::choice_ = [] {
    std::vector<double> weights;
    for (const Step &step : steps_) weights.push_back(step.weight);
    return std::discrete_distribution<size_t>(weights.begin(), weights.end());
}();

TEST(Walk, EndsWithWhatTheDeviceHolds) {
    const unsigned seed = seed_from("KESTO_CLIENT_SEED", 20261125);
    std::cout << "KESTO_CLIENT_SEED=" << seed << std::endl;
    Walk walk(seed);
    size_t taken = 0;
    try {
        for (const size_t count = number_from("KESTO_CLIENT_STEPS", 1000); taken < count && !HasFailure(); taken++)
            walk.step();
        walk.settle();
    } catch (const std::runtime_error &) {
        ADD_FAILURE();
    }
    if (HasFailure()) std::cout << "KESTO_CLIENT_SEED=" << seed << ", step " << taken << ":\n" << walk.last_steps();
}
