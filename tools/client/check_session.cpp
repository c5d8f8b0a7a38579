#include <algorithm>
#include <iterator>

#include <glib.h>

#include "checks.h"

namespace {

constexpr const char *config_keys = "/Device/Config", *missing_key = "/Device/Config/There/Is/No/Such/Key",
                     *text_of_the_check = "written by the check", *mask = "********";
constexpr const char *secret_endings[] = {"password", "passphrase", "secret", "pin"};

Session &writable_session_of(Visit &visit) {
    Session &session = session_of(visit);
    if (!visit.project_info) throw NotChecked{std::string(project_key) + " is not known, so it could not be put back"};
    return session;
}

/* A key that the user may not write, with the value that it has: should the device take it after all, nothing is lost.
 */
Assignment forbidden_of(Visit &visit) {
    if (visit.serial.empty()) throw NotChecked{std::string(serial_key) + " is not known"};
    if (visit.own.account.user == unrestricted_user) throw NotChecked{"this user may write every key"};
    return {serial_key, visit.serial};
}

bool is_secret(const std::string &key) {
    g_autofree char *lower = g_ascii_strdown(key.c_str(), -1);
    return std::any_of(std::begin(secret_endings), std::end(secret_endings),
                       [&](const char *ending) { return g_str_has_suffix(lower, ending); });
}

std::string find_secret(const wire::Value &value) {
    for (const wire::Pair &pair : value.entries()) {
        if (is_secret(pair.key()) && pair.value() != mask) return pair.key();
    }
    throw NotChecked{std::string("there is no password or the like to be seen in ") + config_keys};
}

std::string entry_of(const wire::Value &value, const std::string &key) {
    for (const wire::Pair &pair : value.entries()) {
        if (pair.key() == key) return pair.value();
    }
    throw device_failure(key + " is missing among " + std::to_string(value.entries_size()) + " keys");
}

}  // namespace

std::string check_read(Visit &visit) {
    const wire::Value value = session_read(session_of(visit), serial_key, false);
    require(value.key() == serial_key, "the reply is about key '" + value.key() + "'");
    require(value.signature() == "s" && !value.text().empty(),
            "a value of type '" + value.signature() + "' with text '" + value.text() + "'");
    visit.serial = value.text();
    return std::string(serial_key) + " = " + visit.serial;
}

std::string check_recursive_read(Visit &visit) {
    const wire::Value value = session_read(session_of(visit), hardware_keys, true);
    require(value.signature() == "a{ss}", "a value of type '" + value.signature() + "'");
    const std::string below = std::string(hardware_keys) + "/";
    for (const wire::Pair &pair : value.entries())
        require(pair.key() == hardware_keys || pair.key().starts_with(below), pair.key() + " is among the keys");
    require(entry_of(value, serial_key) == visit.serial, "the serial is another than by itself");
    return std::to_string(value.entries_size()) + " keys at or below " + hardware_keys;
}

std::string check_missing_key(Visit &visit) {
    const wire::Reply reply = session_ask(session_of(visit), read_request(missing_key, false));
    expect_status(reply, wire::STATUS_REFUSED, std::string("reading ") + missing_key);
    return std::string(missing_key) + " is refused";
}

std::string check_masks(Visit &visit) {
    const std::string key = find_secret(session_read(session_of(visit), config_keys, true));
    const PassingId id = further_id(visit, "-masked");
    LoginWishes wishes = monitored();
    wishes.hide_secure_info = true;
    Session session = session_open(id.account, wishes);
    require(session_read(session, key, false).text() == mask, key + " is readable by itself");
    const wire::Value several = session_read(session, config_keys, true);
    require(entry_of(several, key) == mask, key + " is readable among others");
    require(session_read(session, serial_key, false).text() != mask, std::string(serial_key) + " is masked too");
    return key + " is " + mask + ", by itself and among others";
}

std::string check_write(Visit &visit) {
    Session &session = session_of(visit);
    visit.project_info = session_read(session, project_key, false).text();
    const wire::WriteResult result = session_write(session, {project_key, text_of_the_check}, plain_write_type);
    require(result.key() == project_key && result.value() == text_of_the_check,
            "the reply says " + result.key() + " = '" + result.value() + "'");
    expect_project_info(session, text_of_the_check);
    return std::string(project_key) + ": '" + *visit.project_info + "' became '" + text_of_the_check + "'";
}

std::string check_change_count(Visit &visit) {
    Session &session = writable_session_of(visit);
    const uint32_t before = session_change_count(session);
    write_project_info(session, text_of_the_check);
    const uint32_t growth = session_change_count(session) - before;  // the counter may wrap around
    std::string seen = std::to_string(before) + " -> " + std::to_string(before + growth);
    require(growth > 0 && growth <= INT32_MAX, seen);
    return seen;
}

std::string check_forbidden_write(Visit &visit) {
    Session &session = session_of(visit);
    const Assignment forbidden = forbidden_of(visit);
    const wire::Reply reply = session_ask(session, write_request(forbidden, plain_write_type));
    expect_status(reply, wire::STATUS_REFUSED, "writing " + forbidden.key);
    require(reply.write().key() == forbidden.key && reply.write().result() < 0,
            "the refusal says key '" + reply.write().key() + "', result " + std::to_string(reply.write().result()));
    require(!session_may(session, operation_write, forbidden.key, false), "refused, but Authorize allows it");
    require(session_may(session, operation_read, forbidden.key, false), "Authorize does not allow to read it either");
    return forbidden.key + " is refused, and Authorize says no";
}

std::string check_multi_write(Visit &visit) {
    Session &session = writable_session_of(visit);
    const std::string text = std::string(text_of_the_check) + " at once";
    const wire::MultiWriteResult result = session_write_all(session, {
                                                                         {project_key, text}
    });
    require(result.pairs_size() == 1 && result.results_size() == 1,
            std::to_string(result.pairs_size()) + " pairs and " + std::to_string(result.results_size()) + " results");
    expect_project_info(session, text);
    return "read back; the data service said '" + result.results(0) + "'";
}

std::string check_forbidden_multi_write(Visit &visit) {
    Session &session = writable_session_of(visit);
    const Assignment forbidden = forbidden_of(visit);
    write_project_info(session, text_of_the_check);
    const wire::Request request = multi_write_request({
        {project_key, "must not be written"},
        forbidden
    });
    expect_status(session_ask(session, request), wire::STATUS_REFUSED, "a multi-write with " + forbidden.key);
    expect_project_info(session, text_of_the_check);
    return std::string("refused, and ") + project_key + " beside it is not written";
}

/* What is published arrives in order: when the writer hears the other's later change, an echo of its own earlier one
 * would have arrived before. */
std::string check_echo(Visit &visit) {
    Session &writer = writable_session_of(visit);
    const PassingId id = further_id(visit, "-echo");
    Session other = session_open(id.account, monitored());
    session_listen(other);
    write_until_heard(other, writer, "written by another client");
    write_until_heard(writer, other, text_of_the_check);
    const std::string last = "written last";
    write_project_info(other, last);
    bool own_echo = false;
    const auto heard = wait_for_published(writer, writer.account.timeout_ms, [&](const wire::Message &message) {
        own_echo = own_echo || is_echo(message, writer, text_of_the_check);
        return is_echo(message, other, last);
    });
    require(heard.has_value(), "the change of another client was not heard");
    require(!own_echo, "the writer heard its own change");
    return "heard by the other client, not by the writer";
}

std::string check_put_back(Visit &visit) {
    Session &session = writable_session_of(visit);
    const std::string text = *visit.project_info;
    write_project_info(session, text);
    expect_project_info(session, text);
    visit.project_info.reset();
    return std::string(project_key) + " = '" + text + "' again";
}

std::string check_log_out(Visit &visit) {
    Session session = std::move(session_of(visit));
    visit.session.reset();
    log_out(session.account);
    expect_closed(session);
    const wire::Session fresh = log_in(session.account, monitored());
    require(fresh.command_port() != session.command_port && fresh.event_port() != session.event_port,
            "the next log-in gets a closed port again");
    return ports_text(session) + " are closed; the next log-in gets " + std::to_string(fresh.command_port()) + " and " +
           std::to_string(fresh.event_port());
}

std::string check_vanish(Visit &visit) {
    const PassingId id = further_id(visit, "-vanishing");
    return vanish(id.account);
}
