/* Audio parameters are written with the values that they have. */
#include "tour.h"

#include <cstdio>

#include <glib.h>

#include "output.h"
#include "visit.h"

namespace {

constexpr const char *channel_keys = "/Device/Audio/Presets/Live/OutputProcess/Channels/Channel-0";
constexpr size_t channel_writes_max = 2;

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

std::string step_discover(Tour &tour) {
    const DiscoverySearch search{tour.options.address, tour.account.client_id, tour.options.timeout_ms};
    const std::vector<Device> devices = discover_devices(search);
    if (devices.empty())
        throw Failure{ExitStatus::not_reachable, "not reachable: no device answered at " + tour.options.address};
    tour.device = devices.front();
    if (!tour.device.key_is_right) throw device_failure("the device did not wrap the right key");
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
    if (value.entries().empty()) throw device_failure(std::string("there is nothing below ") + hardware_keys);
    return std::to_string(value.entries_size()) + " keys at or below " + hardware_keys;
}

std::string step_write(Tour &tour) {
    const std::string text = "written by the tour";
    const std::string found = session_read(*tour.session, project_key, false).text();
    tour.project_info = found;
    write_project_info(*tour.session, text);
    expect_project_info(*tour.session, text);
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
    expect_project_info(*tour.session, text);
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
    throw device_failure("user " + tour.account.user + " may write " + serial_key +
                         "; take the tour as a restricted user");
}

std::string step_hear_other(Tour &tour) {
    tour.other = session_open(account_named(tour.account, "-other"), monitored());
    const std::string text = "written by another client";
    write_until_heard(*tour.other, *tour.session, text);
    return tour.other->account.client_id + " wrote it and " + tour.account.client_id + " heard: '" + text + "'";
}

std::string step_hear_alarm(Tour &tour) {
    if (tour.options.alarm_wait_ms == 0) return "left out";
    const auto alarm = wait_for_published(*tour.session, tour.options.alarm_wait_ms, [](const wire::Message &message) {
        return message.event().kind_case() == wire::Event::kAlarm;
    });
    if (!alarm) throw device_failure("the device raised no alarm in time (--alarm-wait)");
    return say_published(*alarm).text;
}

std::string step_put_back(Tour &tour) {
    const std::string text = *tour.project_info;
    write_project_info(*tour.session, text);
    expect_project_info(*tour.session, text);
    tour.project_info.reset();
    return std::string(project_key) + " = '" + text + "' again";
}

std::string step_log_out(Tour &tour) {
    for (std::optional<Session> *session : {&tour.other, &tour.session}) {
        log_out((*session)->account);
        expect_closed(**session);
    }
    const std::string ports = ports_text(*tour.session);
    tour.other.reset();
    tour.session.reset();
    return ports + " are closed";
}

std::string step_vanish(Tour &tour) { return vanish(account_named(tour.account, "-vanishing")); }

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
