#include "steps.h"

Failure device_failure(const std::string &sentence) { return {ExitStatus::refused, sentence}; }

void require(bool holds, const std::string &otherwise) {
    if (!holds) throw device_failure(otherwise);
}

void expect_status(const kesto::Reply &reply, kesto::Status status, const std::string &what) {
    require(reply.status == status,
            what + " is answered " + kesto::status_name(reply.status) + " instead of " + kesto::status_name(status));
}

Account account_named(const Account &account, const char *suffix) {
    Account named = account;
    named.client_id += suffix;
    return named;
}

PassingId further_id(const Visit &visit, const char *suffix) {
    return PassingId(account_named(visit.own.account, suffix));
}

Session &session_of(Visit &visit) {
    if (!visit.session) throw NotChecked{"there is no session"};
    return *visit.session;
}

kesto::Reply ask_raw(Session &session, kesto::Operation operation) {
    return reply_of(session.ask_raw(std::move(operation)));
}

void write_project_info(Session &session, const std::string &text) {
    session_write(session, {project_key, text}, write_plain);
}
