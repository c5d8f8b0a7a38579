#include <algorithm>
#include <optional>

#include <kesto-client/blocking.h>

#include "loop_core.h"
#include "mark.h"

namespace kesto {

struct BlockingClient::State {
    Loop loop;
    ClientCallbacks callbacks;
    std::string why = "not connected in time";
    bool hopeless = false;  // an option is wrong
    bool inside = false;    // a call is under way: this one comes from a callback
    int limit_ms;
    std::optional<Client> client;

    void take_notice(Notice notice, const std::string &sentence) {
        if (notice == Notice::invalid) hopeless = true;
        if (!sentence.empty()) why = sentence;
        if (callbacks.notice) callbacks.notice(notice, sentence);
    }
};

static void wait_until(Loop &loop, int64_t until) {
    loop.wait(static_cast<int>(std::max<int64_t>(until - now_ms(), 0)));
}

BlockingClient::BlockingClient(ClientOptions options, ClientCallbacks callbacks) : state_(std::make_unique<State>()) {
    State &state = *state_;
    state.callbacks = std::move(callbacks);
    state.limit_ms = options.answer_limit_ms;
    ClientCallbacks inner = state.callbacks;
    inner.notice = [&state](Notice notice, const std::string &sentence) { state.take_notice(notice, sentence); };
    state.client.emplace(state.loop, std::move(options), std::move(inner));
}

BlockingClient::~BlockingClient() {
    state_->callbacks = {};
    bool closed = false;
    state_->client->close([&closed] { closed = true; });
    while (!closed) state_->loop.wait();
}

Answer BlockingClient::ask(Operation operation) {
    State &state = *state_;
    if (state.inside) return {Outcome::not_sent, "a callback cannot wait for an answer", {}};
    const Mark mark(state.inside);
    const int64_t until = now_ms() + state.limit_ms;
    while (!state.client->connected() && !state.hopeless && now_ms() < until) wait_until(state.loop, until);
    if (!state.client->connected()) return {Outcome::not_sent, state.why, {}};

    const auto answer = std::make_shared<std::optional<Answer>>();
    state.client->ask(std::move(operation), [answer](const Answer &told) { *answer = told; });
    while (!*answer) state.loop.wait();
    return std::move(**answer);
}

Ports BlockingClient::ports() const { return state_->client->ports(); }

void BlockingClient::wait(int limit_ms) {
    if (state_->inside) return;
    const Mark mark(state_->inside);
    const int64_t until = now_ms() + limit_ms;
    do {
        wait_until(state_->loop, until);
    } while (now_ms() < until);
}

}  // namespace kesto
