/* What the device publishes is taken before its answers: it was sent before them, as a rule. */
#include <algorithm>

#include "client_core.h"
#include "judgement.h"

namespace kesto {

static constexpr int events_at_once = 256;   // then other tasks get their turn
static constexpr size_t doubts_most = 16;    // more than these are read at once by the caller
static constexpr int doubt_ms = 1000;        // until the counter is asked for again when something seems missing
static constexpr int standstill_ms = 19000;  // a call is given up after 25 s, a sign of life came up to 5 s later

void Client::Core::ask(Operation operation, Answered answered) {
    const auto told = [this, answered = std::move(answered)](Answer answer) {
        if (answered) tell([answered, answer = std::move(answer)] { answered(answer); });
    };
    if (std::holds_alternative<Login>(operation) || std::holds_alternative<std::monostate>(operation)) {
        told({Outcome::invalid, "a client logs in by itself", {}});
    } else if (!connected() || !closed_.empty()) {
        told({Outcome::not_sent, "not connected", {}});
    } else {
        queue_.push_back({std::move(operation), told});
        wake();
    }
}

/* Who is about to be told that the client is connected reads anyway. */
void Client::Core::tell_read_again(const std::string &sentence) {
    if (connected()) tell_notice(Notice::read_again, sentence);
}

bool Client::Core::step_events(int64_t now) {
    for (int count = 0; count < events_at_once; ++count) {
        const std::optional<std::string> frame = events_->receive();
        if (!frame) {
            take_doubts();
            return true;
        }
        if (const std::optional<Published> published = decode_published(*frame)) take_published(*published, now);
    }
    wake();
    return false;
}

void Client::Core::take_published(const Published &published, int64_t now) {
    if (!std::holds_alternative<Alarm>(published)) ledger_.add_frame();
    if (callbacks_.published) tell([this, published] { callbacks_.published(published); });
    if (const Change *change = std::get_if<Change>(&published))
        overtaken_.told(Overtaken::change, change->key, change->value, now);
    if (const Reply *echo = std::get_if<Reply>(&published)) note_values(Overtaken::echo, *echo, now);
    if (const SnapshotLoaded *loaded = std::get_if<SnapshotLoaded>(&published))
        tell_read_again("snapshot " + std::to_string(loaded->slot) + " was loaded");
    if (std::holds_alternative<SpeakerPresetLoaded>(published)) tell_read_again("a speaker preset was loaded");
}

void Client::Core::note_values(Overtaken::Way way, const Reply &reply, int64_t now) {
    if (reply.status != Status::ok) return;
    if (const Value *value = std::get_if<Value>(&reply.result)) {
        if (value->signature == signature_of_text) overtaken_.told(way, value->key, value->text, now);
        for (const Pair &entry : value->entries) overtaken_.told(way, entry.key, entry.value, now);
    }
    if (const WriteResult *write = std::get_if<WriteResult>(&reply.result))
        overtaken_.told(way, write->key, write->value, now);
    const MultiWriteResult *several = std::get_if<MultiWriteResult>(&reply.result);
    if (several == nullptr) return;
    for (size_t i = 0; i < std::min(several->pairs.size(), several->results.size()); ++i) {
        const Pair &pair = several->pairs[i];
        if (several->results[i] == pair_was_written) overtaken_.told(way, pair.key, pair.value, now);
    }
}

void Client::Core::take_doubts() {
    doubts_.merge(overtaken_.take());
    if (doubts_.size() <= doubts_most) return;
    doubts_.clear();
    tell_read_again("the device and another client have changed many keys at once");
}

void Client::Core::step_commands(int64_t now) {
    while (commands_) {
        if (!commands_->busy()) ask_next(now);
        std::optional<Answer> answer = commands_->go_on(now);
        if (answer) {
            take_answer(std::move(*answer), now);
            continue;
        }
        if (commands_->lost()) lose("the connection to " + endpoint_text(commands_->endpoint()) + " is gone", now);
        return;
    }
}

void Client::Core::ask_next(int64_t now) {
    if (!doubts_.empty()) {
        read_again(*doubts_.begin());
        doubts_.erase(doubts_.begin());
    } else if (!queue_.empty()) {
        asked_ = std::move(queue_.front());
        queue_.pop_front();
    } else if (now >= sign_of_life_at_) {
        asked_ = Asked{ChangeCount{}, {}};
    } else {
        return;
    }
    if (const Read *read = std::get_if<Read>(&asked_->operation)) overtaken_.ask(read->key);
    send(asked_->operation, now);
}

void Client::Core::send(Operation operation, int64_t now) {
    sent_at_ = now;
    commands_->ask({options_.client_id, ++sequence_, std::move(operation)}, now, options_.answer_limit_ms);
}

/* A key whose value is in doubt. */
void Client::Core::read_again(const std::string &key) {
    asked_ = Asked{Read{key}, [this, key](const Answer &answer) {
                       const Value *value = answer.get<Value>();
                       if (answer.reply.status == Status::unspecified) return;  // the connection is lost
                       if (!answer || value == nullptr) {
                           tell_read_again(key + " may have another value than it was said to have");
                           return;
                       }
                       if (callbacks_.value) tell([this, read = *value] { callbacks_.value(read); });
                   }};
}

void Client::Core::take_answer(Answer answer, int64_t now) {
    const bool goes_on = answer || answer.outcome == Outcome::invalid;
    if (stage_ == Stage::opening && !answer) {
        fail_attempt(answer, now);
    } else if (goes_on) {
        take_reply(std::move(answer), now);
    } else {
        const std::string why = answer.sentence;
        finish(std::move(answer));
        lose(why, now);
    }
}

/* What its data service has not answered in time is refused, whoever asked, but may be carried out later: nobody is
 * told then. A read that took as long has waited behind all that. */
void Client::Core::see_standstill(int64_t now) {
    if (!asked_ || std::holds_alternative<Read>(asked_->operation) || now - sent_at_ < standstill_ms) return;
    tell_read_again("the device stood still, and may have done what it refused meanwhile");
}

void Client::Core::take_reply(Answer answer, int64_t now) {
    if (answer && !see_counter(answer.reply, now)) {
        finish(std::move(answer));
        lose("the device was restarted", now);
        return;
    }
    see_standstill(now);
    if (stage_ == Stage::opening) {
        stage_ = Stage::connected;
        connected_at_ = now;
        told_.clear();
        tell_notice(was_connected_ ? Notice::recovered : Notice::connected, "");
        was_connected_ = true;
    } else if (inquiry_) {
        inquire(answer, now);
    } else if (asked_ && answer) {
        note_values(Overtaken::answer, answer.reply, now);
        take_doubts();
        answer = judge(asked_->operation, std::move(answer.reply));
        std::vector<Authorize> questions = questions_after(asked_->operation, answer);
        if (questions.empty()) {
            finish(std::move(answer));
        } else {
            inquiry_ = Inquiry{std::move(answer), std::move(questions)};
            send(inquiry_->questions.front(), now);
        }
    } else {
        finish(std::move(answer));
    }
}

bool Client::Core::see_counter(const Reply &reply, int64_t now) {
    // One's own write is counted, and its echo may be left out. A refused one may not have been counted.
    const bool is_write =
        std::holds_alternative<WriteResult>(reply.result) || std::holds_alternative<MultiWriteResult>(reply.result);
    if (is_write && options_.flags.discard_my_feedback) ledger_.add_frame();
    const ChangeLedger::Finding finding = ledger_.see(reply.change_count, now);
    if (finding == ChangeLedger::Finding::lost) tell_read_again("events were lost");
    const int pause_ms = ledger_.in_doubt() ? std::min(doubt_ms, options_.sign_of_life_ms) : options_.sign_of_life_ms;
    sign_of_life_at_ = now + pause_ms;
    return finding != ChangeLedger::Finding::fell;
}

void Client::Core::inquire(const Answer &told, int64_t now) {
    const Authorize &question = inquiry_->questions[inquiry_->next];
    const Authorization *authorization = told.get<Authorization>();
    if (authorization != nullptr && !authorization->allowed) {
        finish(answer_denied(std::move(inquiry_->refusal), asked_->operation, question, options_.user));
    } else if (++inquiry_->next < inquiry_->questions.size()) {
        send(inquiry_->questions[inquiry_->next], now);
    } else {
        finish(std::move(inquiry_->refusal));
    }
}

/* Of the request under way; that it was refused is known, also when the inquiry into the reason fails. */
void Client::Core::finish(Answer answer) {
    if (!asked_) return;
    const Asked asked = std::move(*asked_);
    asked_.reset();
    if (inquiry_ && answer.outcome != Outcome::not_allowed && answer.outcome != Outcome::refused) {
        answer = std::move(inquiry_->refusal);
        answer.sentence = "the device refused it, and the connection was lost before it said why";
    }
    inquiry_.reset();
    if (asked.answered) asked.answered(std::move(answer));
}

void Client::Core::fail_requests() {
    if (asked_) finish({Outcome::unknown, "the connection was lost before the answer", {}});
    doubts_.clear();
    for (Asked &asked : std::exchange(queue_, {}))
        asked.answered({Outcome::not_sent, "the connection was lost before it was sent", {}});
}

}  // namespace kesto
