/* A refusal on the wire gives no reason. Whether it was the user's rights is asked afterwards, with an Authorize
 * request, which changes nothing. */
#include "session.h"

#include <string_view>
#include <utility>

#include "failure.h"

static Failure unsupported(const std::string &what) {
    return refused(what + ": the device does not know this request");
}

static wire::Reply ask_supported(Session &session, const wire::Request &request, const std::string &what) {
    wire::Reply reply = session_ask(session, request);
    if (reply.status() == wire::STATUS_UNSUPPORTED) throw unsupported(what);
    return reply;
}

static Failure refused_by_data_service(const std::string &what, const std::string &detail) {
    return refused(what + ": the user's rights allow it, but the device's data service " + detail);
}

static Failure refused_read(Session &session, const std::string &key, bool recursive) {
    const std::string what = (recursive ? "read everything below " : "read ") + key;
    if (!session_may(session, operation_read, key, recursive)) {
        return refused(what + ": user " + session.account.user + " may not read this" +
                       (recursive ? " recursively" : ""));
    }
    return refused_by_data_service(what, "gave no value; there may be no such key");
}

static Failure refused_write_all(Session &session, const std::vector<Assignment> &assignments) {
    const std::string &user = session.account.user;
    for (const auto &[key, value] : assignments) {
        if (!session_may(session, operation_write, key, false))
            return refused("multi-write: user " + user + " may not write " + key + ", so nothing was written");
    }
    return refused_by_data_service("multi-write", "did not accept it");
}

static bool is_port(int number) { return number > 0 && number <= port_max; }

/* A session that this program opens is monitored: it ends with the program, however that ends. */
static LoginRequest passing_login(const Options &options) {
    LoginRequest login;
    login.monitor = !options.keep;
    login.discard_my_feedback = true;
    return login;
}

Account account_from_options(const Options &options) {
    return {
        {options.address, auth_port},
        options.client_id, options.user, options.password, options.timeout_ms
    };
}

wire::Reply ask_login_socket(const Account &account, wire::Request request) {
    // A REQ socket does not report a refused connection: that nothing listens would show only at the time-out.
    if (!accepts_connections(account.login, account.timeout_ms)) {
        throw not_reachable("no device takes logins at " + endpoint_text(account.login));
    }
    request.set_client_id(account.client_id);
    return exchange(connect_commands(account.login), account.login, request, account.timeout_ms);
}

wire::Reply ask_to_log_in(const Account &account, const LoginRequest &login) {
    wire::Request request;
    wire::Login &fields = *request.mutable_login();
    fields.set_user_name(account.user);
    fields.set_password(account.password);
    fields.set_monitor(login.monitor);
    fields.set_discard_my_feedback(login.discard_my_feedback);
    fields.set_hide_secure_info(login.hide_secure_info);
    fields.set_no_lock(login.no_lock);
    if (login.discovery) fields.set_discovery(*login.discovery);
    return ask_login_socket(account, request);
}

wire::Session log_in(const Account &account, const LoginRequest &login) {
    const wire::Reply reply = ask_to_log_in(account, login);
    if (reply.status() == wire::STATUS_OK && is_port(reply.session().command_port()) &&
        is_port(reply.session().event_port())) {
        return reply.session();
    }
    const std::string discovery = login.discovery ? ", another device's discovery text" : "";
    throw refused("log in as " + account.user + ": wrong user name or password, a session of another user under id " +
                  account.client_id + discovery + ", or no free port on the device");
}

void log_out(const Account &account) {
    wire::Request request;
    request.mutable_login();
    if (ask_login_socket(account, request).status() != wire::STATUS_OK) {
        throw refused("log out: the device did not say why");
    }
}

std::string ask_static_discovery(const Account &account) {
    wire::Request request;
    request.mutable_discovery();
    const wire::Reply reply = ask_login_socket(account, request);
    if (reply.result_case() != wire::Reply::kDiscovery) throw unsupported("static discovery");
    return reply.discovery();
}

Session session_open(const Account &account, const LoginRequest &login) {
    const wire::Session ports = log_in(account, login);
    Session session{account, ports.command_port(), ports.event_port(), nullptr, nullptr};
    session.commands = connect_commands(session_command_endpoint(session));
    return session;
}

void session_listen(Session &session) { session.events = connect_events(session_event_endpoint(session)); }

Endpoint session_command_endpoint(const Session &session) {
    return {session.account.login.address, session.command_port};
}

Endpoint session_event_endpoint(const Session &session) { return {session.account.login.address, session.event_port}; }

Session session_enter(const Options &options) {
    return session_open(account_from_options(options), passing_login(options));
}

/* Nobody else has a session under an id of this run. Under any other id, a session that was there before must stay, and
 * a new one, being monitored, ends with its connection. */
void session_leave(const Options &options, const Session &session) {
    if (options.own_id && !options.keep) log_out(session.account);
}

void with_session(const Options &options, const std::function<void(Session &)> &work) {
    Session session = session_enter(options);
    try {
        work(session);
    } catch (const Failure &failure) {
        if (failure.status != ExitStatus::not_reachable) session_leave(options, session);
        throw;
    }
    session_leave(options, session);
}

wire::Request read_request(const std::string &key, bool recursive) {
    wire::Request request;
    request.mutable_read()->set_key(key);
    request.mutable_read()->set_flags(recursive ? 0 : read_this_key_alone);
    return request;
}

wire::Request write_request(const Assignment &assignment, uint32_t type) {
    wire::Request request;
    wire::Write &write = *request.mutable_write();
    write.set_key(assignment.key);
    write.set_value(assignment.value);
    write.set_type(type);
    return request;
}

wire::Request multi_write_request(const std::vector<Assignment> &assignments) {
    wire::Request request;
    for (const Assignment &assignment : assignments) {
        wire::Pair &pair = *request.mutable_multi_write()->add_pairs();
        pair.set_key(assignment.key);
        pair.set_value(assignment.value);
    }
    return request;
}

wire::Reply session_ask(Session &session, wire::Request request) {
    request.set_client_id(session.account.client_id);
    request.set_sequence(++session.sequence);
    return exchange(session.commands, session_command_endpoint(session), request, session.account.timeout_ms);
}

wire::Value session_read(Session &session, const std::string &key, bool recursive) {
    const wire::Reply reply = ask_supported(session, read_request(key, recursive), "read " + key);
    if (reply.status() != wire::STATUS_OK || !reply.has_value()) throw refused_read(session, key, recursive);
    return reply.value();
}

wire::WriteResult session_write(Session &session, const Assignment &assignment, uint32_t type) {
    const wire::Reply reply = ask_supported(session, write_request(assignment, type), "write " + assignment.key);
    if (reply.status() == wire::STATUS_OK && reply.write().result() >= 0) return reply.write();
    throw session_write_refusal(session, assignment.key, type, reply.write().result());
}

Failure session_write_refusal(Session &session, const std::string &key, uint32_t type, int result) {
    const std::string what = "write " + key;
    const bool rights_decide = (type & write_is_lock) == 0;
    if (rights_decide && !session_may(session, operation_write, key, false)) {
        return refused(what + ": user " + session.account.user + " may not write this key");
    }
    return refused_by_data_service(what, "did not accept it (result " + std::to_string(result) + ")");
}

wire::MultiWriteResult session_write_all(Session &session, const std::vector<Assignment> &assignments) {
    const wire::Reply reply = ask_supported(session, multi_write_request(assignments), "multi-write");
    if (reply.status() != wire::STATUS_OK) throw refused_write_all(session, assignments);
    return reply.multi_write();
}

bool session_may(Session &session, uint32_t operation, const std::string &key, bool recursive) {
    wire::Request request;
    request.mutable_authorize()->set_operation(operation);
    request.mutable_authorize()->set_key(key);
    request.mutable_authorize()->set_recursive(recursive);
    return ask_supported(session, request, "may " + key).authorization().allowed();
}

std::string session_static_discovery(Session &session) {
    wire::Request request;
    request.mutable_discovery();
    return ask_supported(session, request, "static discovery").discovery();
}

uint32_t session_change_count(Session &session) {
    wire::Request request;
    request.mutable_change_count();
    return ask_supported(session, request, "changes").change_count();
}
