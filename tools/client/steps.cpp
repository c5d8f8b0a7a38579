#include "steps.h"

Failure device_failure(const std::string &sentence) { return {ExitStatus::refused, sentence}; }

void require(bool holds, const std::string &otherwise) {
    if (!holds) throw device_failure(otherwise);
}

void expect_status(const wire::Reply &reply, wire::Status status, const std::string &what) {
    require(reply.status() == status,
            what + " is answered " + wire::Status_Name(reply.status()) + " instead of " + wire::Status_Name(status));
}

Account account_named(const Account &account, const char *suffix) {
    Account named = account;
    named.client_id += suffix;
    return named;
}

PassingId further_id(const Visit &visit, const char *suffix) {
    return PassingId(account_named(visit.own.account, suffix));
}

LoginRequest monitored() {
    LoginRequest login;
    login.monitor = true;
    login.discard_my_feedback = true;
    return login;
}

Session &session_of(Visit &visit) {
    if (!visit.session) throw NotChecked{"there is no session"};
    return *visit.session;
}

std::string ports_text(const Session &session) {
    return "command port " + std::to_string(session.command_port) + ", event port " +
           std::to_string(session.event_port);
}

void write_project_info(Session &session, const std::string &text) {
    session_write(session, {project_key, text}, write_plain);
}
