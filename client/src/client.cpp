#include <algorithm>
#include <functional>

#include "client_core.h"
#include "discovery.h"
#include "judgement.h"
#include "text.h"

namespace kesto {

static constexpr int first_pause_ms = 1000, close_limit_ms = 5000;
static constexpr double spread = 0.25;  // of a pause, so that not all clients of a device come at once

Client::Core::Core(std::shared_ptr<LoopCore> loop, ClientOptions options, ClientCallbacks callbacks)
    : Task(std::move(loop)),
      options_(std::move(options)),
      callbacks_(std::move(callbacks)),
      random_(static_cast<unsigned>(std::hash<std::string>()(options_.client_id))),
      pause_ms_(first_pause_ms) {}

Client::Core::~Core() { unwatch_all(); }

std::string Client::Core::option_problem() const {
    if (!is_address(options_.login.address)) return "'" + options_.login.address + "' is no IPv4 address";
    if (options_.login.port <= 0 || options_.login.port > last_port)
        return std::to_string(options_.login.port) + " is no port";
    if (options_.client_id.empty()) return "there is no client id";
    for (const std::string *text : {&options_.client_id, &options_.user, &options_.password}) {
        if (!is_text(*text)) return "client id, user or password holds a NUL byte or is not UTF-8";
    }
    if (options_.static_discovery && !is_text(*options_.static_discovery))
        return "the static discovery text holds a NUL byte or is not UTF-8";
    if (options_.answer_limit_ms <= 0 || options_.sign_of_life_ms <= 0 || options_.longest_pause_ms < first_pause_ms)
        return "a time is too short";
    return "";
}

void Client::Core::begin() {
    const std::string problem = option_problem();
    if (problem.empty()) {
        wake();
        return;
    }
    stage_ = Stage::ended;
    tell_notice(Notice::invalid, problem);
}

void Client::Core::tell_notice(Notice notice, const std::string &sentence) {
    if (!callbacks_.notice) return;
    tell([this, notice, sentence] { callbacks_.notice(notice, sentence); });
}

void Client::Core::go_on(int64_t now) {
    if (stage_ == Stage::ended) return;
    if (login_) step_login(now);
    if (commands_ && step_events(now)) step_commands(now);
    if (!closed_.empty()) step_close(now);
    else if (stage_ == Stage::pausing && now >= next_attempt_at_) begin_attempt(now);
    arm(now);
}

void Client::Core::arm(int64_t now) {
    if (stage_ == Stage::ended) return;
    int64_t due = stage_ == Stage::connected ? sign_of_life_at_ : next_attempt_at_;
    if (login_) due = login_->due();
    else if (commands_ && commands_->busy()) due = commands_->due();
    if (!closed_.empty()) due = std::min(due, close_until_);
    set_due(std::max(due, now));
}

void Client::Core::begin_attempt(int64_t now) {
    attempted_at_ = now;
    // A monitored session that is about to end could still be renewed.
    if (may_have_session_) ask_login_port(Stage::logging_out, Login{}, now, options_.answer_limit_ms);
    else ask_login_port(Stage::logging_in, {}, now, options_.answer_limit_ms);
}

void Client::Core::ask_login_port(Stage stage, Operation operation, int64_t now, int limit_ms) {
    drop_login();
    stage_ = stage;
    if (stage == Stage::logging_in) {
        LoginFlags flags = options_.flags;
        flags.monitor = true;
        operation = Login{options_.user, options_.password, flags, options_.static_discovery};
    }
    login_ = std::make_unique<Requester>(loop().context(), options_.login, AfterLoss::reconnect);
    if (login_->descriptor() >= 0) watch(login_->descriptor());
    login_->ask({options_.client_id, ++sequence_, std::move(operation)}, now, limit_ms);
}

void Client::Core::step_login(int64_t now) {
    std::optional<Answer> answer = login_->go_on(now);
    if (stage_ == Stage::logging_in && login_->awaits_answer()) may_have_session_ = true;
    if (!answer) return;
    drop_login();
    if (!closed_.empty() && stage_ == Stage::logging_out) end();
    else take_login_answer(std::move(*answer), now);
}

void Client::Core::take_login_answer(Answer answer, int64_t now) {
    const bool was_log_out = stage_ == Stage::logging_out;
    if (was_log_out) {
        answer = judge_log_out(std::move(answer));
    } else {
        answer =
            judge_login({options_.user, options_.client_id}, options_.static_discovery.has_value(), std::move(answer));
        may_have_session_ = answer.outcome != Outcome::refused && answer.outcome != Outcome::not_sent;
    }
    if (!answer) {
        fail_attempt(answer, now);
    } else if (was_log_out) {
        may_have_session_ = false;
        ask_login_port(Stage::logging_in, {}, now, options_.answer_limit_ms);
        step_login(now);
    } else {
        open_session(*answer.get<Ports>(), now);
    }
}

void Client::Core::open_session(const Ports &ports, int64_t now) {
    stage_ = Stage::opening;
    ports_ = ports;
    ledger_ = ChangeLedger();
    overtaken_ = Overtaken();
    const std::string &address = options_.login.address;
    events_ = std::make_unique<Listener>(loop().context(), Endpoint{address, ports.event});
    commands_ = std::make_unique<Requester>(loop().context(), Endpoint{address, ports.command}, AfterLoss::stay_away);
    if (events_->descriptor() < 0 || commands_->descriptor() < 0) {
        fail_attempt({Outcome::not_sent, "no descriptors are left for the session", {}}, now);
        return;
    }
    watch(events_->descriptor());
    watch(commands_->descriptor());
    send(ChangeCount{}, now);
}

void Client::Core::fail_attempt(const Answer &answer, int64_t now) {
    drop_login();
    drop_session();
    pause(now);
    if (answer.sentence == told_) return;
    told_ = answer.sentence;
    tell_notice(answer.outcome == Outcome::refused ? Notice::refused : Notice::not_reachable, told_);
}

void Client::Core::lose(const std::string &why, int64_t now) {
    if (now - connected_at_ >= options_.longest_pause_ms) pause_ms_ = first_pause_ms;
    tell_notice(Notice::lost, why);
    drop_session();
    pause(now);
}

void Client::Core::pause(int64_t now) {
    stage_ = Stage::pausing;
    const double spread_out = 1 + std::uniform_real_distribution<double>(0, spread)(random_);
    next_attempt_at_ = std::max(now, attempted_at_ + static_cast<int64_t>(pause_ms_ * spread_out));
    pause_ms_ = std::min(2 * pause_ms_, options_.longest_pause_ms);
}

void Client::Core::step_close(int64_t now) {
    const bool late = now >= close_until_;
    const bool asking = asked_ || !queue_.empty();
    const bool saying_farewell = stage_ == Stage::logging_out;
    if (!late && ((stage_ == Stage::connected && asking) || saying_farewell)) return;
    if (late || !may_have_session_) end();
    else ask_login_port(Stage::logging_out, Login{}, now, static_cast<int>(close_until_ - now));
}

void Client::Core::end() {
    drop_login();
    drop_session();
    stage_ = Stage::ended;
    for (std::function<void()> &closed : closed_) {
        if (closed) tell(std::move(closed));
    }
    closed_.clear();
}

void Client::Core::drop_login() {
    if (login_ && login_->descriptor() >= 0) unwatch(login_->descriptor());
    login_.reset();
}

void Client::Core::drop_session() {
    if (commands_ && commands_->descriptor() >= 0) unwatch(commands_->descriptor());
    if (events_ && events_->descriptor() >= 0) unwatch(events_->descriptor());
    commands_.reset();
    events_.reset();
    fail_requests();
}

void Client::Core::close(std::function<void()> closed) {
    if (stage_ == Stage::ended) {
        if (closed) tell(std::move(closed));
        return;
    }
    if (closed_.empty()) close_until_ = now_ms() + close_limit_ms;
    closed_.push_back(std::move(closed));
    wake();
}

Client::Client(Loop &loop, ClientOptions options, ClientCallbacks callbacks)
    : core_(std::make_shared<Core>(loop.core(), std::move(options), std::move(callbacks))) {
    core_->begin();
}

Client::~Client() = default;

bool Client::connected() const { return core_->connected(); }
Ports Client::ports() const { return core_->ports(); }

void Client::ask(Operation operation, Answered answered) { core_->ask(std::move(operation), std::move(answered)); }

void Client::close(std::function<void()> closed) { core_->close(std::move(closed)); }

}  // namespace kesto
