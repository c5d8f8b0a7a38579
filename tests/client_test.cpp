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
#include <random>
#include <sys/syscall.h>
#include <unistd.h>
#include <zmq.h>

#include <gtest/gtest.h>

#include "harness/discovery.h"
#include "harness/port.h"
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
        if (zmq_bind(socket_.get(), endpoint.c_str()) != 0) throw Abandoned("cannot bind " + endpoint);
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

[[maybe_unused]] static std::string reply_to(const wire::Request &request, int command_port = 0,
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
