/* client_core.h - the inside of a client: client.cpp is the course from attempt to attempt, client_session.cpp what
 * happens while it is connected. */
#pragma once

#include <deque>
#include <random>
#include <set>

#include <kesto-client/client.h>

#include "change_ledger.h"
#include "loop_core.h"
#include "overtaken.h"
#include "sockets.h"

namespace kesto {

class Client::Core final : public Task {
  public:
    Core(std::shared_ptr<LoopCore> loop, ClientOptions options, ClientCallbacks callbacks);
    ~Core() override;

    void begin();
    void go_on(int64_t now) override;
    void ask(Operation operation, Answered answered);
    void close(std::function<void()> closed);
    bool connected() const { return stage_ == Stage::connected; }
    Ports ports() const { return connected() ? ports_ : Ports{}; }

  private:
    enum class Stage {
        pausing,      // until next_attempt_at_
        logging_out,  // a session that there may still be
        logging_in,
        opening,  // until the command port has answered
        connected,
        ended,  // for good
    };

    /* A request of the caller, or the client's own. */
    struct Asked {
        Operation operation;
        std::function<void(Answer answer)> answered;  // called within go_on; may be empty
    };
    /* The questions about the user's rights after a refusal. */
    struct Inquiry {
        Answer refusal;
        std::vector<Authorize> questions;
        size_t next = 0;
    };

    /* client.cpp */
    std::string option_problem() const;
    void begin_attempt(int64_t now);
    void ask_login_port(Stage stage, Operation operation, int64_t now, int limit_ms);
    void step_login(int64_t now);
    void take_login_answer(Answer answer, int64_t now);
    void open_session(const Ports &ports, int64_t now);
    void fail_attempt(const Answer &answer, int64_t now);
    void lose(const std::string &why, int64_t now);
    void pause(int64_t now);
    void step_close(int64_t now);
    void end();
    void drop_login();
    void drop_session();
    void arm(int64_t now);
    void tell_notice(Notice notice, const std::string &sentence);

    /* client_session.cpp */
    void tell_read_again(const std::string &sentence);
    bool step_events(int64_t now); /* false: there are more */
    void take_published(const Published &published, int64_t now);
    void take_echo(const Reply &echo, int64_t now);
    void note_values(Overtaken::Way way, const Reply &reply, int64_t now);
    void take_doubts();
    void step_commands(int64_t now);
    void ask_next(int64_t now);
    void send(Operation operation, int64_t now);
    void take_answer(Answer answer, int64_t now);
    void see_standstill(int64_t now);
    void take_reply(Answer answer, int64_t now);
    bool see_counter(const Reply &reply, int64_t now); /* false: the connection was given up */
    void inquire(const Answer &told, int64_t now);
    void finish(Answer answer);
    void read_again(const std::string &key);
    void fail_requests();

    const ClientOptions options_;
    const ClientCallbacks callbacks_;
    std::minstd_rand random_;

    Stage stage_ = Stage::pausing;
    std::unique_ptr<Requester> login_, commands_;
    std::unique_ptr<Listener> events_;
    bool may_have_session_ = false, was_connected_ = false;
    std::string told_;  // the last reason why an attempt failed
    int64_t attempted_at_ = 0, next_attempt_at_ = 0, connected_at_ = 0;
    int pause_ms_;
    std::vector<std::function<void()>> closed_;  // not empty: closing
    int64_t close_until_ = 0;

    Ports ports_;
    std::uint64_t sequence_ = 0;
    int64_t sent_at_ = 0;  // the request under way
    std::deque<Asked> queue_;
    std::set<std::string> doubts_;  // keys to be read again
    std::optional<Asked> asked_;    // under way
    std::optional<Inquiry> inquiry_;
    ChangeLedger ledger_;
    Overtaken overtaken_;
    int64_t sign_of_life_at_ = 0;
};

}  // namespace kesto
