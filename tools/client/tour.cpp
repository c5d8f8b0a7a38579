/* The tour may meet a real amplifier: the only value it really changes is the project information, a text for people;
 * audio parameters are written with the values that they have. */
#include "tour.h"

#include <cstdio>

#include <glib.h>

#include "failure.h"
#include "output.h"

namespace {

constexpr const char *serial_key = "/Device/Config/Hardware/Model/Serial", *project_key = "/Device/Config/PROJECT_INFO",
                     *hardware_keys = "/Device/Config/Hardware",
                     *channel_keys = "/Device/Audio/Presets/Live/OutputProcess/Channels/Channel-0";
constexpr size_t channel_writes_max = 2;
constexpr uint32_t plain_write_type = 1;
constexpr int poll_ms = 50;        // between two looks at something that is about to happen
constexpr int echo_wait_ms = 500;  // then the change is made again: a fresh subscription may have missed it
constexpr int echo_tries = 10;
constexpr gint64 us_per_ms = 1000;

struct Tour {
    const Options &options;
    Account account;
    Device device;
    std::optional<Session> session;
    std::optional<Session> other;
    std::string serial;
    std::optional<std::string> project_info;  // as found; set once it has been changed
};

struct Step {
    const char *name;
    std::string (*run)(Tour &tour);  // returns what a person wants to know of it
};

Failure tour_failure(const std::string &sentence) { return {ExitStatus::refused, sentence}; }

Account account_named(const Tour &tour, const char *suffix) {
    Account account = tour.account;
    account.client_id += suffix;
    return account;
}

LoginWishes monitored() {
    LoginWishes wishes;
    wishes.monitor = true;
    wishes.discard_my_feedback = true;
    return wishes;
}

void write_project_info(Session &session, const std::string &text) {
    session_write(session, {project_key, text}, plain_write_type);
}

void expect_project_info(Tour &tour, const std::string &text) {
    const std::string found = session_read(*tour.session, project_key, false).text();
    if (found != text)
        throw tour_failure(std::string(project_key) + " reads '" + found + "' instead of '" + text + "'");
}

gint64 deadline_us(int wait_ms) { return g_get_monotonic_time() + wait_ms * us_per_ms; }

/* The next published message that `fits`; none when it does not come in time. */
template <typename Fits>
std::optional<wire::Message> wait_for_published(const Session &session, int wait_ms, Fits fits) {
    const gint64 end_us = deadline_us(wait_ms);
    for (gint64 now_us = g_get_monotonic_time(); now_us < end_us; now_us = g_get_monotonic_time()) {
        if (zsys_interrupted) throw Failure{ExitStatus::interrupted, "interrupted"};
        std::optional<wire::Message> message =
            receive_published(session.events, static_cast<int>((end_us - now_us) / us_per_ms) + 1);
        if (message && fits(*message)) return message;
    }
    return std::nullopt;
}

void expect_closed(const Endpoint &endpoint, int wait_ms) {
    const gint64 end_us = deadline_us(wait_ms);
    while (accepts_connections(endpoint, wait_ms)) {
        if (g_get_monotonic_time() >= end_us)
            throw tour_failure("port " + std::to_string(endpoint.port) + " is still open");
        zclock_sleep(poll_ms);
    }
}

std::string ports_text(const Session &session) {
    return "command port " + std::to_string(session.command_port) + ", event port " +
           std::to_string(session.event_port);
}

std::string step_discover(Tour &tour) {
    const DiscoverySearch search{tour.options.address, tour.account.client_id, tour.options.timeout_ms};
    const std::vector<Device> devices = discover_devices(search);
    if (devices.empty())
        throw Failure{ExitStatus::not_reachable, "not reachable: no device answered at " + tour.options.address};
    tour.device = devices.front();
    if (!tour.device.key_is_right) throw tour_failure("the device did not wrap the right key");
    tour.account.login = device_login_endpoint(tour.device);
    return tour.device.fields[field_model] + ", serial " + tour.device.fields[field_serial] + ", takes logins at " +
           endpoint_text(tour.account.login) + "; the shared key unwraps";
}

std::string step_log_in(Tour &tour) {
    tour.session = session_open(tour.account, monitored());
    session_listen(*tour.session);
    return "user " + tour.account.user + ", client id " + tour.account.client_id + ": " + ports_text(*tour.session);
}

std::string step_read(Tour &tour) {
    tour.serial = session_read(*tour.session, serial_key, false).text();
    return std::string(serial_key) + " = " + tour.serial;
}

std::string step_read_recursively(Tour &tour) {
    const wire::Value value = session_read(*tour.session, hardware_keys, true);
    if (value.entries().empty()) throw tour_failure(std::string("there is nothing below ") + hardware_keys);
    return std::to_string(value.entries_size()) + " keys at or below " + hardware_keys;
}

std::string step_write(Tour &tour) {
    const std::string text = "written by the tour";
    const std::string found = session_read(*tour.session, project_key, false).text();
    tour.project_info = found;
    write_project_info(*tour.session, text);
    expect_project_info(tour, text);
    return std::string(project_key) + ": '" + found + "' became '" + text + "'";
}

std::string step_multi_write(Tour &tour) {
    const std::string text = "written by the tour with others";
    std::vector<Assignment> assignments = {
        {project_key, text}
    };
    const wire::Value channel = session_read(*tour.session, channel_keys, true);
    for (const wire::Pair &pair : channel.entries()) {
        if (assignments.size() > channel_writes_max) break;
        if (session_may(*tour.session, operation_write, pair.key(), false))
            assignments.push_back({pair.key(), pair.value()});
    }
    session_write_all(*tour.session, assignments);
    expect_project_info(tour, text);
    return std::to_string(assignments.size()) + " keys at once, read back";
}

std::string step_refused(Tour &tour) {
    // The value is the one it has: should the device take it after all, nothing is lost.
    const Assignment forbidden = {serial_key, tour.serial};
    try {
        session_write(*tour.session, forbidden, plain_write_type);
    } catch (const Failure &failure) {
        if (failure.status != ExitStatus::refused) throw;
        if (session_may(*tour.session, operation_write, serial_key, false)) throw;
        return failure.sentence;
    }
    throw tour_failure("user " + tour.account.user + " may write " + serial_key +
                       "; take the tour as a restricted user");
}

bool hears_change(Tour &tour, const std::string &text) {
    write_project_info(*tour.other, text);
    const auto echo = wait_for_published(*tour.session, echo_wait_ms, [&](const wire::Message &message) {
        return message.has_reply() && message.reply().client_id() == tour.other->account.client_id &&
               message.reply().write().value() == text;
    });
    return echo.has_value();
}

std::string step_hear_other(Tour &tour) {
    tour.other = session_open(account_named(tour, "-other"), monitored());
    const std::string text = "written by another client";
    int tries = 1;
    while (!hears_change(tour, text)) {
        if (++tries > echo_tries) throw tour_failure("the change of another client was not heard");
    }
    return tour.other->account.client_id + " wrote it and " + tour.account.client_id + " heard: '" + text + "'";
}

std::string step_hear_alarm(Tour &tour) {
    if (tour.options.alarm_wait_ms == 0) return "left out";
    const auto alarm = wait_for_published(*tour.session, tour.options.alarm_wait_ms, [](const wire::Message &message) {
        return message.event().kind_case() == wire::Event::kAlarm;
    });
    if (!alarm) throw tour_failure("the device raised no alarm in time (--alarm-wait)");
    return say_published(*alarm).text;
}

std::string step_put_back(Tour &tour) {
    const std::string text = *tour.project_info;
    write_project_info(*tour.session, text);
    expect_project_info(tour, text);
    tour.project_info.reset();
    return std::string(project_key) + " = '" + text + "' again";
}

std::string step_log_out(Tour &tour) {
    for (std::optional<Session> *session : {&tour.other, &tour.session}) {
        log_out((*session)->account);
        expect_closed(session_command_endpoint(**session), tour.options.timeout_ms);
        expect_closed(session_event_endpoint(**session), tour.options.timeout_ms);
    }
    const std::string ports = ports_text(*tour.session);
    tour.other.reset();
    tour.session.reset();
    return ports + " are closed";
}

std::string step_vanish(Tour &tour) {
    const Account account = account_named(tour, "-vanishing");
    Session session = session_open(account, monitored());
    session_change_count(session);
    session.commands.reset();  // without a log-out

    // While the session lasts, another login gives its ports. Trying to connect would count as the client itself.
    const gint64 end_us = deadline_us(tour.options.timeout_ms);
    wire::Session fresh = log_in(account, monitored());
    while (fresh.command_port() == session.command_port) {
        if (g_get_monotonic_time() >= end_us) throw tour_failure("the client that vanished is still logged in");
        zclock_sleep(poll_ms);
        fresh = log_in(account, monitored());
    }
    log_out(account);
    expect_closed(session_command_endpoint(session), tour.options.timeout_ms);
    return "its command port " + std::to_string(session.command_port) + " was closed for it; its next login got port " +
           std::to_string(fresh.command_port());
}

constexpr Step steps[] = {
    {"discover the device",              step_discover        },
    {"log in",                           step_log_in          },
    {"read a key",                       step_read            },
    {"read many keys",                   step_read_recursively},
    {"write a key",                      step_write           },
    {"write several keys",               step_multi_write     },
    {"be refused a forbidden key",       step_refused         },
    {"hear another client's change",     step_hear_other      },
    {"hear the device's own alarm",      step_hear_alarm      },
    {"put the changed value back",       step_put_back        },
    {"log out",                          step_log_out         },
    {"vanish, and be logged off for it", step_vanish          },
};

Saying say_step(int number, const Step &step, bool fine, const std::string &detail) {
    g_autofree char *text =
        g_strdup_printf("%2d  %-33s %-6s  %s", number, step.name, fine ? "OK" : "failed", printable(detail).c_str());
    return {
        {{"step", number}, {"name", step.name}, {"ok", fine}, {"detail", detail}},
        text
    };
}

/* After a step that failed, as far as the device still lets us. */
void tidy_up(Tour &tour) {
    try {
        if (tour.session && tour.project_info) write_project_info(*tour.session, *tour.project_info);
    } catch (const Failure &) {
        fprintf(stderr, "kesto-client: could not put back %s = '%s'\n", project_key,
                printable(*tour.project_info).c_str());
    }
    // The sessions are monitored: they end with their connections.
}

}  // namespace

int run_tour(const Options &options) {
    Tour tour{options, account_from_options(options), {}, {}, {}, {}, {}};
    int number = 0;
    for (const Step &step : steps) {
        ++number;
        try {
            const std::string detail = step.run(tour);
            print_saying(options.json, say_step(number, step, true, detail));
        } catch (const Failure &failure) {
            print_saying(options.json, say_step(number, step, false, failure.sentence));
            tidy_up(tour);
            throw Failure{failure.status, std::string("the tour failed to ") + step.name + ": " + failure.sentence};
        }
    }
    return static_cast<int>(ExitStatus::fine);
}
