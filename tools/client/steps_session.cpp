#include <algorithm>
#include <iterator>

#include <glib.h>

#include "output.h"
#include "steps.h"

static constexpr const char *hardware_keys = "/Device/Config/Hardware", *config_keys = "/Device/Config",
                            *missing_key = "/Device/Config/There/Is/No/Such/Key",
                            *channel_keys = "/Device/Audio/Presets/Live/OutputProcess/Channels/Channel-0";
static constexpr const char *mask = "********";
static constexpr const char *secret_endings[] = {"password", "passphrase", "secret", "pin"};
static constexpr size_t channel_writes_max = 2;

static constexpr int poll_ms = 50;        // between two attempts to see something that is about to happen
static constexpr int echo_wait_ms = 500;  // then the change is made again: a fresh subscription may have missed it
static constexpr int echo_tries = 10;

static gint64 deadline_us(int wait_ms) { return g_get_monotonic_time() + wait_ms * us_per_ms; }

static void expect_project_info(Session &session, const std::string &text) {
    const std::string found = session_read(session, project_key, false).text();
    require(found == text, std::string(project_key) + " reads '" + found + "' instead of '" + text + "'");
}

static Session &writable_session_of(Visit &visit) {
    Session &session = session_of(visit);
    if (!visit.project_info) throw NotChecked{std::string(project_key) + " is not known, so it could not be put back"};
    return session;
}

/* A key that the user may not write, with the value that it has: if the device accepts the write, nothing changes. */
static Assignment forbidden_of(const Visit &visit) {
    if (visit.serial.empty()) throw NotChecked{std::string(serial_key) + " is not known"};
    if (visit.own.account.user == unrestricted_user) {
        throw NotChecked{std::string("user ") + unrestricted_user + " may write every key; user " + restricted_user +
                         " may not"};
    }
    return {serial_key, visit.serial};
}

static bool is_secret(const std::string &key) {
    g_autofree char *lower = g_ascii_strdown(key.c_str(), -1);
    return std::any_of(std::begin(secret_endings), std::end(secret_endings),
                       [&](const char *ending) { return g_str_has_suffix(lower, ending); });
}

static std::string find_secret(const wire::Value &value) {
    for (const wire::Pair &pair : value.entries()) {
        if (is_secret(pair.key()) && pair.value() != mask) return pair.key();
    }
    throw NotChecked{std::string("there is no password or the like to be seen in ") + config_keys};
}

static std::string entry_of(const wire::Value &value, const std::string &key) {
    for (const wire::Pair &pair : value.entries()) {
        if (pair.key() == key) return pair.value();
    }
    throw device_failure(key + " is missing among " + std::to_string(value.entries_size()) + " keys");
}

/* A few of a channel's keys, with the values that they have. */
static void add_channel_values(Session &session, std::vector<Assignment> &assignments) {
    const size_t count_max = assignments.size() + channel_writes_max;
    const wire::Value channel = session_read(session, channel_keys, true);
    for (const wire::Pair &pair : channel.entries()) {
        if (assignments.size() == count_max) return;
        if (session_may(session, operation_write, pair.key(), false)) assignments.push_back({pair.key(), pair.value()});
    }
}

/* The next published message that `fits`; none when it does not come in time. */
using MessageTest = std::function<bool(const wire::Message &)>;

static std::optional<wire::Message> wait_for_published(const Session &session, int wait_ms, const MessageTest &fits) {
    const gint64 end_us = deadline_us(wait_ms);
    for (gint64 now_us = g_get_monotonic_time(); now_us < end_us; now_us = g_get_monotonic_time()) {
        if (zsys_interrupted) throw interrupted();
        std::optional<wire::Message> message =
            receive_published(session.events, static_cast<int>((end_us - now_us) / us_per_ms) + 1);
        if (message && fits(*message)) return message;
    }
    return std::nullopt;
}

/* Whether it is the echo of the writer's write of this text. */
static bool is_echo(const wire::Message &message, const Session &writer, const std::string &text) {
    return message.reply().client_id() == writer.account.client_id && message.reply().write().value() == text;
}

/* Writes the text as project information until the listener hears of it. */
static void write_until_heard(Session &writer, const Session &listener, const std::string &text) {
    const auto fits = [&](const wire::Message &message) { return is_echo(message, writer, text); };
    for (int tries = 0; tries < echo_tries; ++tries) {
        write_project_info(writer, text);
        if (wait_for_published(listener, echo_wait_ms, fits)) return;
    }
    throw device_failure("the change of another client was not heard");
}

static void expect_port_closed(const Endpoint &endpoint, int wait_ms) {
    const gint64 end_us = deadline_us(wait_ms);
    while (accepts_connections(endpoint, wait_ms)) {
        require(g_get_monotonic_time() < end_us, "port " + std::to_string(endpoint.port) + " is still open");
        zclock_sleep(poll_ms);
    }
}

static void expect_closed(const Session &session) {
    expect_port_closed(session_command_endpoint(session), session.account.timeout_ms);
    expect_port_closed(session_event_endpoint(session), session.account.timeout_ms);
}

/* Returns the session that has ended. */
static Session end_session(Visit &visit) {
    Session session = std::move(session_of(visit));
    visit.session.reset();
    log_out(session.account);
    expect_closed(session);
    return session;
}

std::string step_read(Visit &visit) {
    const wire::Value value = session_read(session_of(visit), serial_key, false);
    require(value.key() == serial_key, "the reply is about key '" + value.key() + "'");
    require(value.signature() == signature_of_text && !value.text().empty(),
            "a value of type '" + value.signature() + "' with text '" + value.text() + "'");
    visit.serial = value.text();
    return std::string(serial_key) + " = " + visit.serial;
}

std::string step_read_recursively(Visit &visit) {
    const wire::Value value = session_read(session_of(visit), hardware_keys, true);
    require(value.signature() == signature_of_pairs, "a value of type '" + value.signature() + "'");
    const std::string below = std::string(hardware_keys) + "/";
    for (const wire::Pair &pair : value.entries())
        require(pair.key() == hardware_keys || pair.key().starts_with(below), pair.key() + " is among the keys");
    require(entry_of(value, serial_key) == visit.serial, "the serial is another than by itself");
    return std::to_string(value.entries_size()) + " keys at or below " + hardware_keys;
}

std::string step_read_missing(Visit &visit) {
    const wire::Reply reply = session_ask(session_of(visit), read_request(missing_key, false));
    expect_status(reply, wire::STATUS_REFUSED, std::string("reading ") + missing_key);
    return std::string(missing_key) + " is refused";
}

std::string step_read_masked(Visit &visit) {
    const std::string key = find_secret(session_read(session_of(visit), config_keys, true));
    const PassingId id = further_id(visit, "-masked");
    LoginRequest login = monitored();
    login.hide_secure_info = true;
    Session session = session_open(id.account, login);
    require(session_read(session, key, false).text() == mask, key + " is readable by itself");
    const wire::Value several = session_read(session, config_keys, true);
    require(entry_of(several, key) == mask, key + " is readable among others");
    require(session_read(session, serial_key, false).text() != mask, std::string(serial_key) + " is masked too");
    return key + " is " + mask + ", by itself and among others";
}

std::string step_write(Visit &visit) {
    Session &session = session_of(visit);
    visit.project_info = session_read(session, project_key, false).text();
    const wire::WriteResult result = session_write(session, {project_key, visit.text}, write_plain);
    require(result.key() == project_key && result.value() == visit.text,
            "the reply says " + result.key() + " = '" + result.value() + "'");
    expect_project_info(session, visit.text);
    return std::string(project_key) + ": '" + *visit.project_info + "' became '" + visit.text + "'";
}

std::string step_change_count(Visit &visit) {
    Session &session = writable_session_of(visit);
    const uint32_t before = session_change_count(session);
    write_project_info(session, visit.text);
    const uint32_t growth = session_change_count(session) - before;  // the counter may wrap around
    std::string seen = std::to_string(before) + " -> " + std::to_string(before + growth);
    require(growth > 0 && growth <= INT32_MAX, seen);
    return seen;
}

std::string step_write_several(Visit &visit) {
    Session &session = writable_session_of(visit);
    const std::string text = visit.text + " with others";
    std::vector<Assignment> assignments;
    assignments.push_back({project_key, text});
    add_channel_values(session, assignments);
    const wire::MultiWriteResult result = session_write_all(session, assignments);
    const int count = static_cast<int>(assignments.size());
    require(result.pairs_size() == count && result.results_size() == count,
            std::to_string(count) + " keys at once are answered with " + std::to_string(result.pairs_size()) +
                " pairs and " + std::to_string(result.results_size()) + " results");
    expect_project_info(session, text);
    return std::to_string(count) + " keys at once, read back";
}

std::string step_write_forbidden(Visit &visit) {
    Session &session = session_of(visit);
    const Assignment forbidden = forbidden_of(visit);
    const wire::Reply reply = session_ask(session, write_request(forbidden, write_plain));
    expect_status(reply, wire::STATUS_REFUSED, "writing " + forbidden.key);
    const wire::WriteResult &result = reply.write();
    require(result.key() == forbidden.key && result.result() < 0,
            "the refusal says key '" + result.key() + "', result " + std::to_string(result.result()));
    require(!session_may(session, operation_write, forbidden.key, false), "refused, but Authorize allows it");
    require(session_may(session, operation_read, forbidden.key, false), "Authorize does not allow to read it either");
    return session_write_refusal(session, forbidden.key, write_plain, result.result()).sentence;
}

std::string step_write_one_forbidden(Visit &visit) {
    Session &session = writable_session_of(visit);
    const Assignment beside = {project_key, "must not be written"}, forbidden = forbidden_of(visit);
    write_project_info(session, visit.text);
    const wire::Reply reply = session_ask(session, multi_write_request({beside, forbidden}));
    expect_status(reply, wire::STATUS_REFUSED, "a multi-write with " + forbidden.key);
    expect_project_info(session, visit.text);
    return std::string("refused, and ") + project_key + " beside it is not written";
}

/* What is published arrives in order: when this client hears the other's later change, an echo of its own earlier one
 * would have arrived before. */
std::string step_hear_other(Visit &visit) {
    const std::string text = "written by another client", last = "written last";
    Session &own = writable_session_of(visit);
    const PassingId id = further_id(visit, "-other");
    Session other = session_open(id.account, monitored());
    session_listen(other);
    write_until_heard(other, own, text);
    write_until_heard(own, other, visit.text);
    write_project_info(other, last);
    bool own_echo = false;
    const auto heard = wait_for_published(own, own.account.timeout_ms, [&](const wire::Message &message) {
        own_echo = own_echo || is_echo(message, own, visit.text);
        return is_echo(message, other, last);
    });
    require(heard.has_value(), "the change of another client was not heard");
    require(!own_echo, "the writer heard its own change");
    return id.account.client_id + " wrote it and " + own.account.client_id + " heard: '" + text + "'";
}

std::string step_hear_alarm(Visit &visit) {
    const int wait_ms = visit.options.alarm_wait_ms;
    if (wait_ms == 0) return "left out";
    const auto alarm = wait_for_published(session_of(visit), wait_ms, [](const wire::Message &message) {
        return message.event().kind_case() == wire::Event::kAlarm;
    });
    require(alarm.has_value(), "the device raised no alarm in time (--alarm-wait)");
    return format_published(*alarm).text;
}

std::string step_put_back(Visit &visit) {
    Session &session = writable_session_of(visit);
    const std::string text = *visit.project_info;
    write_project_info(session, text);
    expect_project_info(session, text);
    visit.project_info.reset();
    return std::string(project_key) + " = '" + text + "' again";
}

std::string step_log_out(Visit &visit) { return ports_text(end_session(visit)) + " are closed"; }

std::string step_log_out_and_in(Visit &visit) {
    const Session closed = end_session(visit);
    const wire::Session fresh = log_in(closed.account, monitored());
    require(fresh.command_port() != closed.command_port && fresh.event_port() != closed.event_port,
            "the next log-in gets a closed port again");
    return ports_text(closed) + " are closed; the next log-in gets " + std::to_string(fresh.command_port()) + " and " +
           std::to_string(fresh.event_port());
}

/* While the session lasts, another login gives the same ports. That is asked rather than whether the command port is
 * open, since a connection would count as the client's. */
std::string step_vanish(Visit &visit) {
    const PassingId id = further_id(visit, "-vanishing");
    Session session = session_open(id.account, monitored());
    session_change_count(session);
    session.commands.reset();  // without a log-out

    const gint64 end_us = deadline_us(id.account.timeout_ms);
    wire::Session fresh = log_in(id.account, monitored());
    while (fresh.command_port() == session.command_port) {
        require(g_get_monotonic_time() < end_us, "the client that vanished is still logged in");
        zclock_sleep(poll_ms);
        fresh = log_in(id.account, monitored());
    }
    expect_closed(session);
    return "its command port " + std::to_string(session.command_port) + " was closed for it; its next login got port " +
           std::to_string(fresh.command_port());
}
