#include "commands.h"

#include <algorithm>

#include "failure.h"

static constexpr int fine = static_cast<int>(ExitStatus::fine);

static DiscoverySearch search_from_options(const Options &options) {
    DiscoverySearch search{std::nullopt, options.client_id, options.wait_ms};
    if (!options.arguments.empty()) {
        search.address = resolve_host(options.arguments[0]);
    } else if (options.host_given) {
        search.address = options.address;
    }
    return search;
}

static std::string yes_or_no(bool answer) { return answer ? "yes" : "no"; }

int run_discover(const Options &options) {
    const std::vector<Device> devices = discover_devices(search_from_options(options));
    if (devices.empty()) throw not_reachable("no device answered");
    print_output(options.json, format_devices(devices));
    const bool keys_are_right =
        std::all_of(devices.begin(), devices.end(), [](const Device &device) { return device.key_is_right; });
    if (!keys_are_right) throw Failure{ExitStatus::refused, "a device did not wrap the right key"};
    return fine;
}

int run_login(const Options &options) {
    const Account account = account_from_options(options);
    LoginRequest login;
    login.monitor = options.monitor;
    login.discard_my_feedback = options.discard_my_feedback;
    login.hide_secure_info = options.hide_secure_info;
    login.no_lock = options.no_lock;
    if (options.with_discovery) login.discovery = ask_static_discovery(account);
    print_output(options.json, format_login(account, log_in(account, login), !options.monitor));
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
    const uint32_t type = options.type | (options.lock ? write_is_lock : 0);
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
    const bool read = session_may(session, operation_read, key, false);
    const bool read_recursively = session_may(session, operation_read, key, true);
    const bool write = session_may(session, operation_write, key, false);
    return {
        {{"key", key}, {"read", read}, {"read_recursively", read_recursively}, {"write", write}},
        "read " + yes_or_no(read) + ", read recursively " + yes_or_no(read_recursively) + ", write " +
            yes_or_no(write)
    };
}
