#include "visit.h"

#include <glib.h>

namespace {

constexpr int poll_ms = 50;        // between two looks at something that is about to happen
constexpr int echo_wait_ms = 500;  // then the change is made again: a fresh subscription may have missed it
constexpr int echo_tries = 10;
constexpr gint64 us_per_ms = 1000;

gint64 deadline_us(int wait_ms) { return g_get_monotonic_time() + wait_ms * us_per_ms; }

void expect_port_closed(const Endpoint &endpoint, int wait_ms) {
    const gint64 end_us = deadline_us(wait_ms);
    while (accepts_connections(endpoint, wait_ms)) {
        if (g_get_monotonic_time() >= end_us)
            throw device_failure("port " + std::to_string(endpoint.port) + " is still open");
        zclock_sleep(poll_ms);
    }
}

}  // namespace

Failure device_failure(const std::string &sentence) { return {ExitStatus::refused, sentence}; }

Account account_named(const Account &account, const char *suffix) {
    Account named = account;
    named.client_id += suffix;
    return named;
}

LoginWishes monitored() {
    LoginWishes wishes;
    wishes.monitor = true;
    wishes.discard_my_feedback = true;
    return wishes;
}

std::string ports_text(const Session &session) {
    return "command port " + std::to_string(session.command_port) + ", event port " +
           std::to_string(session.event_port);
}

void write_project_info(Session &session, const std::string &text) {
    session_write(session, {project_key, text}, plain_write_type);
}

void expect_project_info(Session &session, const std::string &text) {
    const std::string found = session_read(session, project_key, false).text();
    if (found != text)
        throw device_failure(std::string(project_key) + " reads '" + found + "' instead of '" + text + "'");
}

std::optional<wire::Message> wait_for_published(const Session &session, int wait_ms,
                                                const std::function<bool(const wire::Message &)> &fits) {
    const gint64 end_us = deadline_us(wait_ms);
    for (gint64 now_us = g_get_monotonic_time(); now_us < end_us; now_us = g_get_monotonic_time()) {
        if (zsys_interrupted) throw Failure{ExitStatus::interrupted, "interrupted"};
        std::optional<wire::Message> message =
            receive_published(session.events, static_cast<int>((end_us - now_us) / us_per_ms) + 1);
        if (message && fits(*message)) return message;
    }
    return std::nullopt;
}

bool is_echo(const wire::Message &message, const Session &writer, const std::string &text) {
    return message.reply().client_id() == writer.account.client_id && message.reply().write().value() == text;
}

void write_until_heard(Session &writer, const Session &listener, const std::string &text) {
    const auto fits = [&](const wire::Message &message) { return is_echo(message, writer, text); };
    for (int tries = 0; tries < echo_tries; ++tries) {
        write_project_info(writer, text);
        if (wait_for_published(listener, echo_wait_ms, fits)) return;
    }
    throw device_failure("the change of another client was not heard");
}

void expect_closed(const Session &session) {
    expect_port_closed(session_command_endpoint(session), session.account.timeout_ms);
    expect_port_closed(session_event_endpoint(session), session.account.timeout_ms);
}

std::string vanish(const Account &account) {
    Session session = session_open(account, monitored());
    session_change_count(session);
    session.commands.reset();  // without a log-out

    // While the session lasts, another login gives its ports. Trying to connect would count as the client itself.
    const gint64 end_us = deadline_us(account.timeout_ms);
    wire::Session fresh = log_in(account, monitored());
    while (fresh.command_port() == session.command_port) {
        if (g_get_monotonic_time() >= end_us) throw device_failure("the client that vanished is still logged in");
        zclock_sleep(poll_ms);
        fresh = log_in(account, monitored());
    }
    log_out(account);
    expect_closed(session);
    return "its command port " + std::to_string(session.command_port) + " was closed for it; its next login got port " +
           std::to_string(fresh.command_port());
}
