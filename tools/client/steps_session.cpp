#include <algorithm>
#include <iterator>

#include <glib.h>

#include "interrupt.h"
#include "output.h"
#include "steps.h"

static constexpr const char *hardware_keys = "/Device/Config/Hardware", *config_keys = "/Device/Config",
                            *missing_key = "/Device/Config/There/Is/No/Such/Key",
                            *channel_keys = "/Device/Audio/Presets/Live/OutputProcess/Channels/Channel-0";
static constexpr const char *mask = "********";
static constexpr const char *secret_endings[] = {"password", "passphrase", "secret", "pin"};
static constexpr size_t channel_writes_max = 2;

static constexpr gulong poll_us = 50 * us_per_ms;  // between two attempts to see something that is about to happen
static constexpr int echo_wait_ms = 500;  // then the change is made again: a fresh subscription may have missed it
static constexpr int echo_tries = 10;

static gint64 deadline_us(int wait_ms) { return g_get_monotonic_time() + wait_ms * us_per_ms; }

static void expect_project_info(Session &session, const std::string &text) {
    const std::string found = session_read(session, project_key, false).text;
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

static std::string find_secret(const kesto::Value &value) {
    for (const kesto::Pair &pair : value.entries) {
        if (is_secret(pair.key) && pair.value != mask) return pair.key;
    }
    throw NotChecked{std::string("there is no password or the like to be seen in ") + config_keys};
}

static std::string entry_of(const kesto::Value &value, const std::string &key) {
    for (const kesto::Pair &pair : value.entries) {
        if (pair.key == key) return pair.value;
    }
    throw device_failure(key + " is missing among " + std::to_string(value.entries.size()) + " keys");
}

/* A few of a channel's keys, with the values that they have. */
static void add_channel_values(Session &session, std::vector<Assignment> &assignments) {
    const size_t count_max = assignments.size() + channel_writes_max;
    const kesto::Value channel = session_read(session, channel_keys, true);
    for (const kesto::Pair &pair : channel.entries) {
        if (assignments.size() == count_max) return;
        if (session_may(session, kesto::operation_write, pair.key, false))
            assignments.push_back({pair.key, pair.value});
    }
}

/* The next thing published that `fits`; none when it does not come in time. */
using PublishedTest = std::function<bool(const kesto::Published &)>;

static std::optional<kesto::Published> wait_for_published(Session &session, int wait_ms, const PublishedTest &fits) {
    const gint64 end_us = deadline_us(wait_ms);
    for (gint64 now_us = g_get_monotonic_time(); now_us < end_us; now_us = g_get_monotonic_time()) {
        if (is_interrupted()) throw interrupted();
        std::optional<kesto::Published> published =
            session.next_published(static_cast<int>((end_us - now_us) / us_per_ms) + 1);
        if (published && fits(*published)) return published;
    }
    return std::nullopt;
}

/* Whether it is the echo of the writer's write of this text. */
static bool is_echo(const kesto::Published &published, const Session &writer, const std::string &text) {
    const auto *reply = std::get_if<kesto::Reply>(&published);
    const auto *write = reply != nullptr ? std::get_if<kesto::WriteResult>(&reply->result) : nullptr;
    return write != nullptr && reply->client_id == writer.account().client_id && write->value == text;
}

/* Writes the text as project information until the listener hears of it. */
static void write_until_heard(Session &writer, Session &listener, const std::string &text) {
    const auto fits = [&](const kesto::Published &published) { return is_echo(published, writer, text); };
    for (int tries = 0; tries < echo_tries; ++tries) {
        write_project_info(writer, text);
        if (wait_for_published(listener, echo_wait_ms, fits)) return;
    }
    throw device_failure("the change of another client was not heard");
}

static void expect_port_closed(const Session &session, int port) {
    const kesto::Patience &patience = session.account().patience;
    const gint64 end_us = deadline_us(patience.limit_ms);
    while (kesto::accepts_connections({session.account().login.address, port}, patience)) {
        require(g_get_monotonic_time() < end_us, "port " + std::to_string(port) + " is still open");
        g_usleep(poll_us);
    }
}

static void expect_closed(const Session &session) {
    expect_port_closed(session, session.ports().command);
    expect_port_closed(session, session.ports().event);
}

static std::string ports_text(const Session &session) {
    return "command port " + std::to_string(session.ports().command) + ", event port " +
           std::to_string(session.ports().event);
}

/* Returns the session that has ended. */
static Session end_session(Visit &visit) {
    Session session = std::move(session_of(visit));
    visit.session.reset();
    log_out(session.account());
    expect_closed(session);
    return session;
}

std::string step_read(Visit &visit) {
    const kesto::Value value = session_read(session_of(visit), serial_key, false);
    require(value.key == serial_key, "the reply is about key '" + value.key + "'");
    require(value.signature == kesto::signature_of_text && !value.text.empty(),
            "a value of type '" + value.signature + "' with text '" + value.text + "'");
    visit.serial = value.text;
    return std::string(serial_key) + " = " + visit.serial;
}

std::string step_read_recursively(Visit &visit) {
    const kesto::Value value = session_read(session_of(visit), hardware_keys, true);
    require(value.signature == kesto::signature_of_pairs, "a value of type '" + value.signature + "'");
    const std::string below = std::string(hardware_keys) + "/";
    for (const kesto::Pair &pair : value.entries)
        require(pair.key == hardware_keys || pair.key.starts_with(below), pair.key + " is among the keys");
    require(entry_of(value, serial_key) == visit.serial, "the serial is another than by itself");
    return std::to_string(value.entries.size()) + " keys at or below " + hardware_keys;
}

std::string step_read_missing(Visit &visit) {
    const kesto::Reply reply = ask_raw(session_of(visit), kesto::Read{missing_key});
    expect_status(reply, kesto::Status::refused, std::string("reading ") + missing_key);
    return std::string(missing_key) + " is refused";
}

std::string step_read_masked(Visit &visit) {
    const std::string key = find_secret(session_read(session_of(visit), config_keys, true));
    const PassingId id = further_id(visit, "-masked");
    LoginFlags flags;
    flags.hide_secure_info = true;
    Session session = session_open(id.account, flags);
    require(session_read(session, key, false).text == mask, key + " is readable by itself");
    const kesto::Value several = session_read(session, config_keys, true);
    require(entry_of(several, key) == mask, key + " is readable among others");
    require(session_read(session, serial_key, false).text != mask, std::string(serial_key) + " is masked too");
    return key + " is " + mask + ", by itself and among others";
}

std::string step_write(Visit &visit) {
    Session &session = session_of(visit);
    visit.project_info = session_read(session, project_key, false).text;
    const kesto::WriteResult result = session_write(session, {project_key, visit.text}, write_plain);
    require(result.key == project_key && result.value == visit.text,
            "the reply says " + result.key + " = '" + result.value + "'");
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
    const kesto::MultiWriteResult result = session_write_all(session, assignments);
    const size_t count = assignments.size();
    require(result.pairs.size() == count && result.results.size() == count,
            std::to_string(count) + " keys at once are answered with " + std::to_string(result.pairs.size()) +
                " pairs and " + std::to_string(result.results.size()) + " results");
    expect_project_info(session, text);
    return std::to_string(count) + " keys at once, read back";
}

std::string step_write_forbidden(Visit &visit) {
    Session &session = session_of(visit);
    const Assignment forbidden = forbidden_of(visit);
    const kesto::Write write = {forbidden.key, forbidden.value, write_plain};
    const kesto::Answer answer = session.ask_raw(write);
    const kesto::Reply reply = reply_of(answer);
    expect_status(reply, kesto::Status::refused, "writing " + forbidden.key);
    const auto result = result_of<kesto::WriteResult>(answer);
    require(result.key == forbidden.key && result.result < 0,
            "the refusal says key '" + result.key + "', result " + std::to_string(result.result));
    require(!session_may(session, kesto::operation_write, forbidden.key, false), "refused, but Authorize allows it");
    require(session_may(session, kesto::operation_read, forbidden.key, false),
            "Authorize does not allow to read it either");
    return failure_of(session.explain_refusal(write, reply)).sentence;
}

std::string step_write_one_forbidden(Visit &visit) {
    Session &session = writable_session_of(visit);
    const Assignment beside = {project_key, "must not be written"}, forbidden = forbidden_of(visit);
    write_project_info(session, visit.text);
    const kesto::Reply reply = ask_raw(session, kesto::MultiWrite{
                                                    {beside, forbidden}
    });
    expect_status(reply, kesto::Status::refused, "a multi-write with " + forbidden.key);
    expect_project_info(session, visit.text);
    return std::string("refused, and ") + project_key + " beside it is not written";
}

/* What is published arrives in order: when this client hears the other's later change, an echo of its own earlier one
 * would have arrived before. */
std::string step_hear_other(Visit &visit) {
    const std::string text = "written by another client", last = "written last";
    Session &own = writable_session_of(visit);
    const PassingId id = further_id(visit, "-other");
    Session other = session_open(id.account, {});
    other.listen();
    write_until_heard(other, own, text);
    write_until_heard(own, other, visit.text);
    write_project_info(other, last);
    bool own_echo = false;
    const auto heard = wait_for_published(own, own.account().patience.limit_ms, [&](const kesto::Published &published) {
        own_echo = own_echo || is_echo(published, own, visit.text);
        return is_echo(published, other, last);
    });
    require(heard.has_value(), "the change of another client was not heard");
    require(!own_echo, "the writer heard its own change");
    return id.account.client_id + " wrote it and " + own.account().client_id + " heard: '" + text + "'";
}

std::string step_hear_alarm(Visit &visit) {
    const int wait_ms = visit.options.alarm_wait_ms;
    if (wait_ms == 0) return "left out";
    const auto alarm = wait_for_published(session_of(visit), wait_ms, [](const kesto::Published &published) {
        return std::holds_alternative<kesto::Alarm>(published);
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
    const Ports fresh = log_in(closed.account(), {}), before = closed.ports();
    require(fresh.command != before.command && fresh.event != before.event, "the next log-in gets a closed port again");
    return ports_text(closed) + " are closed; the next log-in gets " + std::to_string(fresh.command) + " and " +
           std::to_string(fresh.event);
}

/* While the session lasts, another login gives the same ports. That is asked rather than whether the command port is
 * open, since a connection would count as the client's. */
std::string step_vanish(Visit &visit) {
    const PassingId id = further_id(visit, "-vanishing");
    Session session = session_open(id.account, {});
    session_change_count(session);
    session.hang_up();  // without a log-out

    const gint64 end_us = deadline_us(id.account.patience.limit_ms);
    Ports fresh = log_in(id.account, {});
    while (fresh.command == session.ports().command) {
        require(g_get_monotonic_time() < end_us, "the client that vanished is still logged in");
        g_usleep(poll_us);
        fresh = log_in(id.account, {});
    }
    expect_closed(session);
    return "its command port " + std::to_string(session.ports().command) +
           " was closed for it; its next login got port " + std::to_string(fresh.command);
}
