#include <kesto-client/session.h>

#include "exchange_with.h"
#include "judgement.h"

namespace kesto {

/* A REQ socket does not report a refused connection: that nothing listens would show only at the time-out. */
Answer ask_login_socket(const Loop &loop, const Account &account, Operation operation) {
    if (accepts_connections(account.login, account.patience))
        return exchange(loop, account.login, {account.client_id, 0, std::move(operation)}, account.patience);
    if (account.patience.stop && account.patience.stop()) return {Outcome::interrupted, "interrupted", {}};
    return {Outcome::not_sent, "no device takes logins at " + endpoint_text(account.login), {}};
}

Answer log_in(const Loop &loop, const Account &account, const LoginFlags &flags,
              const std::optional<std::string> &static_discovery) {
    Answer answer = ask_login_socket(loop, account, Login{account.user, account.password, flags, static_discovery});
    return judge_login({account.user, account.client_id}, static_discovery.has_value(), std::move(answer));
}

Answer log_out(const Loop &loop, const Account &account) {
    return judge_log_out(ask_login_socket(loop, account, Login{}));
}

Answer ask_static_discovery(const Loop &loop, const Account &account) {
    Answer answer = ask_login_socket(loop, account, Discovery{});
    return answer ? judge(Discovery{}, std::move(answer.reply)) : answer;
}

struct Session::State {
    const Loop *loop;
    Account account;
    Ports ports;
    std::uint64_t sequence = 1;
    std::unique_ptr<Requester> commands;
    std::unique_ptr<Listener> events;
};

Session::Session(const Loop &loop, Account account)
    : state_(std::make_unique<State>(State{&loop, std::move(account), {}, 1, nullptr, nullptr})) {}

Session::~Session() = default;
Session::Session(Session &&) noexcept = default;
Session &Session::operator=(Session &&) noexcept = default;

Answer Session::open(const LoginFlags &flags, const std::optional<std::string> &static_discovery) {
    Answer answer = log_in(*state_->loop, state_->account, flags, static_discovery);
    if (!answer) return answer;
    state_->ports = *answer.get<Ports>();
    const Endpoint endpoint = {state_->account.login.address, state_->ports.command};
    state_->commands = std::make_unique<Requester>(state_->loop->core()->context(), endpoint, AfterLoss::stay_away);
    return answer;
}

const Account &Session::account() const { return state_->account; }
Ports Session::ports() const { return state_->ports; }
void Session::set_sequence(std::uint64_t sequence) { state_->sequence = sequence; }
void Session::hang_up() { state_->commands.reset(); }

Answer Session::ask_raw(Operation operation) {
    if (!state_->commands || state_->commands->busy()) return {Outcome::not_sent, "there is no session", {}};
    const Account &account = state_->account;
    const Request request = {account.client_id, state_->sequence++, std::move(operation)};
    return exchange_with(*state_->commands, request, account.patience);
}

Answer Session::explain_refusal(const Operation &operation, const Reply &reply) {
    Answer answer = judge(operation, reply);
    for (const Authorize &question : questions_after(operation, answer)) {
        Answer told = ask_raw(question);
        if (!told) return told;
        const Authorization *authorization = told.get<Authorization>();
        if (authorization != nullptr && !authorization->allowed)
            return answer_denied(std::move(answer), operation, question, state_->account.user);
    }
    return answer;
}

Answer Session::ask(const Operation &operation) {
    Answer answer = ask_raw(operation);
    return answer ? explain_refusal(operation, answer.reply) : answer;
}

void Session::listen() {
    const Endpoint endpoint = {state_->account.login.address, state_->ports.event};
    state_->events = std::make_unique<Listener>(state_->loop->core()->context(), endpoint);
}

void Session::stop_listening() { state_->events.reset(); }

std::optional<Published> Session::next_published(int limit_ms) {
    if (!state_->events) return std::nullopt;
    const int64_t until = now_ms() + limit_ms;
    for (;;) {
        while (std::optional<std::string> frame = state_->events->receive()) {
            if (std::optional<Published> published = decode_published(*frame)) return published;
        }
        if (now_ms() >= until) return std::nullopt;
        if (wait_readable(state_->events->descriptor(), until, state_->account.patience.stop) == Waited::interrupted)
            return std::nullopt;
    }
}

int Session::event_descriptor() const { return state_->events ? state_->events->descriptor() : -1; }

}  // namespace kesto
