// A model of the sessions beside the real service. Both take the same random steps, and after each step what can be
// seen of them must be the same: the answer, what every connected client hears, what the device is told, and how many
// clients are served. The model knows the rules and nothing of the code.
//
// Every run takes the same steps, unless KESTO_MODEL_SEED gives another seed; "random" draws one. The seed is printed.
// KESTO_MODEL_STEPS sets the length of a run. Steps that fail are cut down to few and printed.
#include <algorithm>
#include <iostream>
#include <sstream>

#include <gtest/gtest-spi.h>

#include "harness/discovery.h"
#include "harness/port.h"
#include "harness/random_steps.h"
#include "harness/remote_client.h"

static constexpr unsigned usual_seed = 20261124;
static constexpr size_t default_steps = 2000, walk_length = 1000;  // a walk is what one gateway sees
static constexpr std::chrono::seconds cutting_time{30};

// The observer stays connected and writes after each step: what is heard before its echo belongs to the step.
static const Texts client_ids = {"panel-1", "@localhost", "panel-2", "stranger", "observer", "passer-by"};
static constexpr size_t actor_count = 4, local = 1, stranger = 3, observer = 4, passer_by = 5, client_count = 6;
// Each client id is that of two remote clients, who share its session: the remotes 2n and 2n + 1 are client n.
static constexpr size_t remote_count = 2 * client_count, actor_remote_count = 2 * actor_count;

static const Texts keys = {name_key, "/Device/Config/Hardware/Model/Serial", "/Device/Config/Networking/Snmp/Secret",
                           "/Device/Nowhere"};
static constexpr size_t listed_key = 1, secret_key = 2, unknown_key = 3, key_count = 4;
static constexpr uint32_t lock = 0x1000, write_types[] = {0, 1, lock};

// The number of a login is that of its user + 3 * its password + 9 * its discovery text. Neither user nor password: a
// log-out. Those that are accepted stand more often in `logins`.
static const OptionalText users[] = {"root", "quillmont", std::nullopt};
static const OptionalText passwords[] = {"vormi", "tandrivel", std::nullopt};
static constexpr size_t root = 0, quillmont = 4, log_out = 8, with_text = 9, with_wrong_text = 18;
static constexpr size_t logins[] = {0, 8, 4, 9, 13, 0, 8, 4, 9, 8, 4, 0, 1, 2, 3, 5, 6, 7, 18, 22};
enum Flag : int32_t { monitor = 1, discard_my_feedback = 2, hide_secure_info = 4, no_lock = 8, flag_sets = 16 };

static constexpr const char *events[][3] = {
  // method, arguments, what is heard of it
    {"Dispatch",                    "(40, 91.5, 3)",          "event 1 91.5 0 "  },
    {"Dispatch",                    "(39, 91.5, 3)",          nullptr            },
    {"GeneralDispatch",             "('/key', 'value', 'i')", "event 2 0 0 value"},
    {"SnapshotLoadedDispatch",      "(uint32 7,)",            "event 3 0 7 "     },
    {"SpeakerPresetLoadedDispatch", "()",                     "event 4 0 0 "     },
};

enum class Kind { discover, connect, drop, event, spend_ports, log_in, read, write, multi_write };
static const Texts kind_names = {"discover", "connect", "drop",  "event",      "ports",
                                 "log in",   "read",    "write", "multi-write"};
static const Texts flag_names = {"monitor", "discard_my_feedback", "hide_secure_info", "no_lock"};
static constexpr std::initializer_list<double> weights = {4, 16, 6, 9, 0.6, 26, 16, 20, 10};
static constexpr size_t ports_spent = 250;  // in one step; a few of them take the counters round
static constexpr size_t what_end = std::size(logins), how_end = flag_sets * std::size(write_types);

struct Step {
    Kind kind = {};
    size_t remote = 0, what = 0, how = 0;  // what: a row of `logins`, `keys` or `events`; how: flags or a row of types
    bool on_command = false;               // a login
    unsigned number = 0;                   // makes values differ; given when it is taken

    size_t client() const { return remote / 2; }
    const std::string &id() const { return client_ids[client()]; }
    size_t login() const { return logins[what]; }
    int32_t flags() const { return static_cast<int32_t>(how) % flag_sets; }  // any number but 0 sets one
    size_t key(size_t next = 0) const { return (what + next) % key_count; }
    uint32_t type() const { return kind == Kind::multi_write ? 1 : write_types[how % std::size(write_types)]; }
    const char *const *event() const { return events[what % std::size(events)]; }
    std::string value() const { return "v" + std::to_string(number); }
};

template <typename... Parts>
static std::string text(const Parts &...parts) {
    std::ostringstream out;
    (out << ... << parts);
    return out.str();
}

static std::string text_of(const wire::Reply &reply) {
    std::string result = reply.value().text();
    for (const std::string &each : reply.multi_write().results()) result += each + ' ';
    if (reply.has_session()) result = text(Ports{reply.session().command_port(), reply.session().event_port()});
    return text(reply.client_id(), " status ", reply.status(), " changes ", reply.change_count(), " ", result);
}

static std::string text_with_bytes(const wire::Reply &reply) {
    return text(text_of(reply), ": ", testing::PrintToString(reply.SerializeAsString()));
}

static std::string text_of(const wire::Message &message) {
    const wire::Event &event = message.event();
    if (message.has_reply()) return text_with_bytes(message.reply());
    return text("event ", event.kind_case(), " ", event.alarm().value(), " ", event.snapshot_loaded().slot(), " ",
                event.change().value());
}

static std::string text_of_login(const Step &step) {
    const char *const discovery_texts[] = {"", ", own text", ", wrong text"};
    std::string flags;
    for (size_t i = 0; i < flag_names.size(); i++)
        if ((step.how >> i & 1) != 0) flags += ' ' + flag_names[i];
    return text(step.on_command ? "on the command socket " : "", users[step.login() % 3].value_or("no name"), "/",
                passwords[step.login() / 3 % 3].value_or("no password"), discovery_texts[step.login() / with_text],
                flags);
}

static std::string text_of(const Step &step) {
    std::string who =
        text(kind_names[static_cast<size_t>(step.kind)], ": ", step.id(), ", remote ", step.remote % 2, " ");
    const std::string pair = text(keys[step.key()], " type ", step.type());
    switch (step.kind) {
        case Kind::event: return text(step.event()[0], " ", step.event()[1]);
        case Kind::log_in: return who + text_of_login(step);
        case Kind::read: return who + keys[step.key()];
        case Kind::write: return who + pair;
        case Kind::multi_write: return text(who, pair, " and ", keys[step.key(1)]);
        default: return who;
    }
}

struct Record {
    OptionalText user;
    Ports ports;  // Ports{}: no session
    int32_t flags = 0;

    bool has(Flag flag) const { return (flags & flag) != 0; }
};

struct Model {
    Record records[client_count];
    bool connected[remote_count] = {};
    Ports next_ports = {62001, 63001};
    uint32_t changes = 0;
    std::string values[key_count] = {name_value, "QM240817", "community"};  // of the device
    Texts calls, heard[remote_count];                                       // since the last comparison

    void tell_audio(size_t client, const char *method) {
        calls.push_back(text(method, " ('", client_ids[records[client].has(no_lock) ? local : client], "',)"));
    }
    void free_record(size_t client) {
        tell_audio(client, "ClientDeauthenticated");
        records[client] = {};
        connected[2 * client] = connected[2 * client + 1] = false;
    }
    void publish(const std::string &message, size_t source = client_count) {
        for (size_t remote = 0; remote < remote_count; remote++)
            if (connected[remote] && (remote / 2 != source || !records[source].has(discard_my_feedback)))
                heard[remote].push_back(message);
    }
};

static bool makes_sense(const Model &model, const Step &step) {
    const bool has_session = model.records[step.client()].ports.command != 0, connected = model.connected[step.remote];
    if (step.kind == Kind::discover) return step.client() != stranger;
    if (step.kind == Kind::connect) return has_session && !connected;
    if (step.kind == Kind::log_in) return connected || !step.on_command;
    return connected || step.kind == Kind::event || step.kind == Kind::spend_ports;
}

static bool open_session(Model &model, const Step &step) {
    const bool is_local = step.client() == local;
    const Ports ports = is_local ? Ports{62000, 63000} : model.next_ports, next = {ports.command + 1, ports.event + 1};
    if (!is_local) model.next_ports = ports == Ports{62998, 63998} ? Ports{62002, 63002} : next;
    for (const Record &other : model.records)
        if (other.ports == ports) return false;
    model.records[step.client()].ports = ports;
    model.records[step.client()].flags = step.flags() & ~(is_local ? monitor : 0);
    return true;
}

// Each of these three: whether the answer is OK.
static bool model_log_in(Model &model, const Step &step, std::string &result) {
    Record &record = model.records[step.client()];
    const size_t login = step.login() % with_text;
    const OptionalText &user = users[login % 3];
    const bool accepted = (login == root || login == quillmont) && step.login() < with_wrong_text;
    if (user && record.user && user != record.user) return false;
    if (user) record.user = user;
    if (login == log_out || (record.ports.command == 0 && !(accepted && open_session(model, step)))) {
        model.free_record(step.client());
        return login == log_out;
    }
    if (accepted && !record.has(monitor)) model.tell_audio(step.client(), "ClientAuthenticated");
    if (accepted) result = text(record.ports);
    return accepted;
}

static bool model_read(Model &model, const Step &step, std::string &result) {
    const bool hidden = step.key() == secret_key && model.records[step.client()].has(hide_secure_info);
    model.calls.push_back(text("Read (uint32 8192, '", keys[step.key()], "')"));
    result = hidden ? "********" : model.values[step.key()];
    return step.key() != unknown_key;
}

static bool model_write(Model &model, const Step &step, std::string &result) {
    const bool many = step.kind == Kind::multi_write, locks = step.type() == lock;
    const bool listed = step.key() == listed_key || (many && step.key(1) == listed_key);
    if (listed && !locks && model.records[step.client()].user != users[root]) return false;
    std::string sent;
    for (size_t i = 0; i < (many ? 2 : 1); i++) {
        const size_t key = step.key(i);
        sent += text(i > 0 ? ", (" : "(", step.type(), ", '", keys[key], "', '", step.value(), "')");
        if (many) result += key == unknown_key ? "NO SUCH KEY " : "OK ";
        if (!locks && key != unknown_key) model.values[key] = step.value();
    }
    model.calls.push_back(many ? "MultiWrite ([" + sent + "],)" : "Write " + sent);
    return many || locks || step.key() != unknown_key;
}

static void connect_or_drop(Model &model, const Step &step) {
    const bool connects = model.connected[step.remote] = step.kind == Kind::connect;
    if (!model.records[step.client()].has(monitor) || model.connected[step.remote ^ 1]) return;
    if (connects) model.tell_audio(step.client(), "ClientAuthenticated");
    else model.free_record(step.client());
}

static std::string apply_to_model(Model &model, const Step &step) {
    const size_t told = model.calls.size();
    std::string result;
    if (step.kind == Kind::discover)
        model.calls.insert(model.calls.end(), 2, "Read (uint32 8192, '/Device/Config/PROJECT_INFO')");
    if (step.kind == Kind::connect || step.kind == Kind::drop) connect_or_drop(model, step);
    if (step.kind == Kind::event && step.event()[2] != nullptr) model.publish(step.event()[2]);
    if (step.kind == Kind::event && step.event()[0] != std::string_view("Dispatch")) model.changes++;
    if (step.kind < Kind::log_in) return "";
    const auto apply = step.kind == Kind::log_in ? model_log_in : step.kind == Kind::read ? model_read : model_write;
    const bool ok = apply(model, step, result);
    const bool changed = step.kind >= Kind::write && model.calls.size() > told;
    model.changes += changed;
    result = text(step.id(), " status ", ok ? 1 : 2, " changes ", model.changes, " ", result);
    if (changed) model.publish(result, step.client());
    return result;
}

// What one walk needs: the model, and the service that it is compared with.
struct Trial {
    Model model;
    Gateway gateway;
    Discovery discovery;
    std::vector<RemoteClient> remotes = {};
    std::string discovery_text = {};
    unsigned number = 0;  // of the last write
};

static wire::Reply log_in_or_out(RemoteClient &remote, const Step &step, const std::string &own_text) {
    const OptionalText discovery_texts[] = {std::nullopt, own_text, "another device's"};
    const LoginOptions options = {.user_name = users[step.login() % 3],
                                  .password = passwords[step.login() / 3 % 3],
                                  .monitor = step.flags() & monitor,
                                  .discard_my_feedback = step.flags() & discard_my_feedback,
                                  .hide_secure_info = step.flags() & hide_secure_info,
                                  .no_lock = step.flags() & no_lock,
                                  .discovery = discovery_texts[step.login() / with_text]};
    return remote.ask(step.on_command ? Channel::command : Channel::authentication, login_request(options));
}

static wire::Reply apply_to_service(Trial &trial, const Step &step, const Record &before) {
    RemoteClient &remote = trial.remotes[step.remote];
    const std::string &key = keys[step.key()], &next_key = keys[step.key(1)], value = step.value();
    const bool connects = step.kind == Kind::connect;
    switch (step.kind) {
        case Kind::log_in: return log_in_or_out(remote, step, trial.discovery_text);
        case Kind::read: return remote.read(key);
        case Kind::write: return remote.write(key, value, step.type());
        case Kind::multi_write: return remote.multi_write({std::pair(key, value), std::pair(next_key, value)});
        case Kind::discover: trial.discovery.ask(discovery_request(step.id())); break;  // and one for its fence
        case Kind::drop: remote.hang_up(); break;
        case Kind::connect: remote.connect_to(before.ports); break;
        default:
            trial.gateway.call(step.event()[0], g_variant_new_parsed(step.event()[1]));
            trial.gateway.expect_log({"DBUS: *"});
    }
    if (before.has(monitor) && (connects || step.kind == Kind::drop))
        trial.gateway.expect_log({connects ? "ACCEPTED socket" : "DISCONNECTED socket"});
    if (connects) remote.subscribe(trial.gateway);
    return {};
}

static void compare(const std::string &what, const Texts &model, const Texts &service) {
    std::string both = what;
    for (const std::string &line : model) both += "\n  model:   " + line;
    for (const std::string &line : service) both += "\n  service: " + line;
    if (model != service) throw std::runtime_error(both);
}

static void perform(Trial &trial, const Step &step) {
    const Record before = trial.model.records[step.client()], &after = trial.model.records[step.client()];
    const std::string answer = apply_to_model(trial.model, step);
    const wire::Reply reply = apply_to_service(trial, step, before);
    compare("the answer", {answer}, {step.kind < Kind::log_in ? "" : text_of(reply)});
    for (Texts &heard : trial.model.heard) std::ranges::replace(heard, answer, text_with_bytes(reply));  // its echo
    if (before.ports == after.ports || before.ports == Ports{}) return;
    for (size_t remote = 2 * step.client(); remote / 2 == step.client(); remote++) trial.remotes[remote].hang_up();
    if (step.client() == local) wait_until_closed(before.ports.command);  // the next session needs it again
}

static void compare_all(Trial &trial) {
    perform(trial, {.kind = Kind::write, .remote = 2 * observer, .number = ++trial.number});
    Model &model = trial.model;
    Texts lines = trial.gateway.device().log_until(model.calls.back());
    lines.push_back(model.calls.back());
    std::erase_if(lines, [](const std::string &line) { return g_ascii_islower(line.front()); });  // but for the calls
    compare("the device", std::exchange(model.calls, {}), lines);
    trial.gateway.expect_log({"[observer] Broadcasting to all clients."});
    lines = trial.gateway.service().log_until("broadcast to * client");
    std::erase_if(lines, [](const std::string &line) { return line.find("Message broadcast") == line.npos; });
    const auto sessions = std::ranges::count_if(model.records, [](const Record &r) { return r.ports.command != 0; });
    compare("clients served", {std::to_string(sessions)}, {std::to_string(lines.size())});
    for (size_t remote = 0; remote < remote_count; remote++) {
        Texts heard;
        for (wire::Message last; model.connected[remote] && last.reply().client_id() != client_ids[observer];)
            heard.push_back(text_of(last = trial.remotes[remote].next_event()));
        compare(client_ids[remote / 2] + " hears", std::exchange(model.heard[remote], {}), heard);
    }
}

static void begin(Trial &trial) {
    for (size_t remote = 0; remote < remote_count; remote++) trial.remotes.emplace_back(client_ids[remote / 2]);
    perform(trial, {.kind = Kind::log_in, .remote = 2 * observer});
    perform(trial, {.kind = Kind::connect, .remote = 2 * observer});
    trial.discovery_text = trial.remotes[2 * observer].discovery_text(Channel::command);
    trial.gateway.device().expect_log({std::exchange(trial.model.calls, {}).back()});
    compare_all(trial);
}

static void take(Trial &trial, Step step) {
    if (!makes_sense(trial.model, step)) return;
    step.number = ++trial.number;
    if (step.kind != Kind::spend_ports) perform(trial, step);
    for (size_t i = 0; step.kind == Kind::spend_ports && i < 2 * ports_spent; i++)
        perform(trial, {.kind = Kind::log_in, .remote = 2 * passer_by, .what = i % 2});
    compare_all(trial);
}

// The first difference, or ""; then `steps` ends with the step that showed it.
static std::string walk(std::vector<Step> &steps) {
    testing::TestPartResultArray complaints;
    const testing::ScopedFakeTestPartResultReporter reporter(
        testing::ScopedFakeTestPartResultReporter::INTERCEPT_ALL_THREADS, &complaints);
    std::string difference;
    size_t taken = 0;
    auto trial = std::make_unique<Trial>();  // outlives the exception, in whose presence it would print its recordings
    try {
        begin(*trial);
        while (taken < steps.size()) take(*trial, steps[taken++]);
        trial->gateway.stop_service();
        trial->gateway.start_service();
        compare("after the stop", {}, trial->gateway.audio_calls());
    } catch (const std::runtime_error &error) {
        difference = text(error.what(), "\n", trial->gateway.device().news(), trial->gateway.service().news());
        steps.resize(taken);
    }
    trial.reset();
    for (int i = 0; i < complaints.size(); i++) difference += text("\n", complaints.GetTestPartResult(i).message());
    return difference;
}

// What the steps that are left lead to, if there are fewer.
static void cut_down(std::vector<Step> &steps, std::string &difference) {
    const auto end = Clock::now() + cutting_time;
    for (size_t part = steps.size(); part > 0; part /= 2)
        for (size_t at = steps.size(); at > 0 && Clock::now() < end;) {
            const size_t from = at - std::min(part, at);
            std::vector<Step> fewer(steps);
            fewer.erase(fewer.begin() + static_cast<ptrdiff_t>(from), fewer.begin() + static_cast<ptrdiff_t>(at));
            if (const std::string still = walk(fewer); !still.empty()) {
                steps = fewer;
                difference = still;
            }
            at = std::min(from, steps.size());
        }
}

static std::vector<Step> random_steps(std::mt19937 &random, size_t count) {
    const auto below = [&random](size_t end) { return random() % end; };
    std::discrete_distribution<int> kind(weights);
    std::vector<Step> steps(count);
    for (Step &step : steps)
        step = {static_cast<Kind>(kind(random)), below(actor_remote_count), below(what_end), below(how_end),
                below(3) == 0};
    return steps;
}

TEST(Model, AgreesWithTheServiceOnRandomSteps) {
    const unsigned seed = seed_from("KESTO_MODEL_SEED", usual_seed);
    std::mt19937 random(seed);
    std::cout << "KESTO_MODEL_SEED=" << seed << std::endl;
    for (size_t left = number_from("KESTO_MODEL_STEPS", default_steps), count = 0; left > 0; left -= count) {
        count = std::min(left, walk_length);
        std::vector<Step> steps = random_steps(random, count);
        std::string difference = walk(steps);
        if (difference.empty()) continue;
        std::cout << "step " << steps.size() << ": " << difference << "\ncutting down ..." << std::endl;
        cut_down(steps, difference);
        for (const Step &step : steps) std::cout << text_of(step) << '\n';
        FAIL() << "after these steps (KESTO_MODEL_SEED=" << seed << "): " << difference;
    }
}
