#include "session.h"

#include <utility>

#include "interrupt.h"

Failure failure_of(const kesto::Answer &answer) {
    switch (answer.outcome) {
        case kesto::Outcome::interrupted: return interrupted();
        case kesto::Outcome::not_sent:
        case kesto::Outcome::unknown: return not_reachable(answer.sentence);
        default: return refused(answer.sentence);
    }
}

kesto::Reply reply_of(kesto::Answer answer) {
    if (!answer && answer.outcome != kesto::Outcome::partly) throw failure_of(answer);
    return std::move(answer.reply);
}

const kesto::Loop &the_loop() {
    static const kesto::Loop loop;
    return loop;
}

kesto::Patience patience_of(const Options &options) { return {options.timeout_ms, is_interrupted}; }

Account account_from_options(const Options &options) {
    return {
        {options.address, kesto::login_port},
        options.client_id, options.user, options.password, patience_of(options)
    };
}

Ports log_in(const Account &account, const LoginFlags &flags, const std::optional<std::string> &static_discovery) {
    return result_of<Ports>(kesto::log_in(the_loop(), account, flags, static_discovery));
}

void log_out(const Account &account) { reply_of(kesto::log_out(the_loop(), account)); }

std::string ask_static_discovery(const Account &account) {
    return result_of<kesto::StaticDiscovery>(kesto::ask_static_discovery(the_loop(), account)).text;
}

Session session_open(const Account &account, const LoginFlags &flags) {
    Session session(the_loop(), account);
    reply_of(session.open(flags));
    return session;
}

/* A session that this program opens is monitored: it ends with the program, however that ends. */
Session session_enter(const Options &options) {
    LoginFlags flags;
    flags.monitor = !options.keep;
    return session_open(account_from_options(options), flags);
}

/* Nobody else has a session under an id of this run. Under any other id, a session that was there before must stay, and
 * a new one, being monitored, ends with its connection. */
void session_leave(const Options &options, const Session &session) {
    if (options.own_id && !options.keep) log_out(session.account());
}

void with_session(const Options &options, const std::function<void(Session &)> &work) {
    Session session = session_enter(options);
    try {
        work(session);
    } catch (const Failure &failure) {
        if (failure.status != ExitStatus::not_reachable) session_leave(options, session);
        throw;
    }
    session_leave(options, session);
}

kesto::Value session_read(Session &session, const std::string &key, bool recursive) {
    const uint32_t flags = recursive ? kesto::read_branch : kesto::read_this_key_alone;
    return result_of<kesto::Value>(session.ask(kesto::Read{key, flags}));
}

kesto::WriteResult session_write(Session &session, const Assignment &assignment, uint32_t type) {
    return result_of<kesto::WriteResult>(session.ask(kesto::Write{assignment.key, assignment.value, type}));
}

kesto::MultiWriteResult session_write_all(Session &session, const std::vector<Assignment> &assignments) {
    return result_of<kesto::MultiWriteResult>(session.ask(kesto::MultiWrite{assignments}));
}

bool session_may(Session &session, uint32_t operation, const std::string &key, bool recursive) {
    return result_of<kesto::Authorization>(session.ask(kesto::Authorize{operation, key, recursive})).allowed;
}

std::string session_static_discovery(Session &session) {
    return result_of<kesto::StaticDiscovery>(session.ask(kesto::Discovery{})).text;
}

uint32_t session_change_count(Session &session) { return reply_of(session.ask(kesto::ChangeCount{})).change_count; }
