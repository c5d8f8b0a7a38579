#include "commands.h"

#include <algorithm>

#include <glib.h>

#include <kesto-client/browser.h>

#include "failure.h"
#include "interrupt.h"

static constexpr int fine = static_cast<int>(ExitStatus::fine);
static constexpr int asked_again_after_ms = 1500;

/* Of this device alone, or of every one in reach. */
static kesto::BrowserOptions search_from_options(const Options &options, const kesto::KeyPair &pair) {
    kesto::BrowserOptions search;
    if (!options.arguments.empty()) search.addresses = {address_of(options.arguments[0])};
    else if (options.host_given) search.addresses = {options.address};
    search.broadcast = search.addresses.empty();
    search.client_id = options.client_id;
    search.public_key = pair.public_pem();
    search.interval_ms = asked_again_after_ms;
    return search;
}

/* Until the wait is over, or the device that was asked has answered. */
static std::vector<kesto::Device> discover_devices(const Options &options, const kesto::KeyPair &pair) {
    kesto::BrowserOptions search = search_from_options(options, pair);
    const bool any = search.broadcast;
    kesto::Loop loop;
    kesto::BrowserCallbacks callbacks;
    callbacks.trouble = [](const std::string &sentence) { throw not_reachable(sentence); };
    const kesto::Browser browser(loop, std::move(search), std::move(callbacks));
    const gint64 end_us = g_get_monotonic_time() + options.wait_ms * us_per_ms;
    for (gint64 now_us = 0; (now_us = g_get_monotonic_time()) < end_us && (any || browser.devices().empty());) {
        loop.wait(static_cast<int>((end_us - now_us) / us_per_ms) + 1);
        if (is_interrupted()) throw interrupted();
    }
    return browser.devices();
}

static std::string yes_or_no(bool answer) { return answer ? "yes" : "no"; }

int run_discover(const Options &options) {
    const kesto::KeyPair pair;
    const std::vector<kesto::Device> devices = discover_devices(options, pair);
    if (devices.empty()) throw not_reachable("no device answered");
    print_output(options.json, format_devices(devices, pair));
    const bool keys_are_right =
        std::all_of(devices.begin(), devices.end(), [&](const kesto::Device &device) { return pair.is_right(device); });
    if (!keys_are_right) throw Failure{ExitStatus::refused, "a device did not wrap the right key"};
    return fine;
}

int run_login(const Options &options) {
    const Account account = account_from_options(options);
    const LoginFlags flags = {options.monitor, options.discard_my_feedback, options.hide_secure_info, options.no_lock};
    std::optional<std::string> static_discovery;
    if (options.with_discovery) static_discovery = ask_static_discovery(account);
    print_output(options.json, format_login(account, log_in(account, flags, static_discovery), !options.monitor));
    return fine;
}

int run_logout(const Options &options) {
    log_out(account_from_options(options));
    print_output(options.json, {{{"client_id", options.client_id}}, "logged out " + printable(options.client_id)});
    return fine;
}

int run_read(const Options &options) {
    const std::string &key = options.arguments[0];
    require_key(key);
    with_session(options, [&](Session &session) {
        print_output(options.json, format_value(session_read(session, key, options.recursive)));
    });
    return fine;
}

int run_write(const Options &options) {
    const Assignment assignment = {options.arguments[0], options.arguments[1]};
    require_key(assignment.key);
    const uint32_t type = options.type | (options.lock ? kesto::write_is_lock : 0);
    with_session(options, [&](Session &session) {
        print_output(options.json, format_write(session_write(session, assignment, type)));
    });
    return fine;
}

int run_multi_write(const Options &options) {
    const std::vector<Assignment> assignments = parse_assignments(options.arguments);
    with_session(options, [&](Session &session) {
        print_output(options.json, format_write_all(session_write_all(session, assignments)));
    });
    return fine;
}

int run_may(const Options &options) {
    const std::string &key = options.arguments[0];
    require_key(key);
    with_session(options, [&](Session &session) { print_output(options.json, ask_rights(session, key)); });
    return fine;
}

int run_static_discovery(const Options &options) {
    with_session(options, [&](Session &session) {
        const std::string text = session_static_discovery(session);
        print_output(options.json, {text, printable(text)});
    });
    return fine;
}

int run_changes(const Options &options) {
    with_session(options, [&](Session &session) {
        const uint32_t count = session_change_count(session);
        print_output(options.json, {count, std::to_string(count)});
    });
    return fine;
}

std::vector<Assignment> parse_assignments(const std::vector<std::string> &words) {
    std::vector<Assignment> assignments;
    assignments.reserve(words.size());
    for (const std::string &word : words) assignments.push_back(parse_assignment(word));
    return assignments;
}

Output ask_rights(Session &session, const std::string &key) {
    const bool read = session_may(session, kesto::operation_read, key, false);
    const bool read_recursively = session_may(session, kesto::operation_read, key, true);
    const bool write = session_may(session, kesto::operation_write, key, false);
    return {
        {{"key", key}, {"read", read}, {"read_recursively", read_recursively}, {"write", write}},
        "read " + yes_or_no(read) + ", read recursively " + yes_or_no(read_recursively) + ", write " +
            yes_or_no(write)
    };
}
