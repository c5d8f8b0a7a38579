/* Each step asks for the very status that the contract names: a refusal that comes for another reason, or an empty
 * answer where a reply is due, does not pass for the one that is expected. */
#include "steps.h"

static constexpr int second_port = 61000;  // what a device that is not in loopback mode announces beside the login port
static constexpr size_t shown_bytes_max = 80, garbage_bytes = 32;
static constexpr uint64_t odd_sequence = 0xfedcba9876543210;

struct PortRange {
    int first, last;
};
static constexpr PortRange command_ports = {62001, 62998}, event_ports = {63001, 63998};

static const Device &device_of(const Visit &visit) {
    if (!visit.device) throw NotChecked{"there is no discovery reply"};
    return *visit.device;
}

static std::string ports_text(const wire::Session &ports) {
    return std::to_string(ports.command_port()) + " and " + std::to_string(ports.event_port());
}

static void expect_login_refused(const Account &account, const LoginRequest &login, const std::string &what) {
    const wire::Reply reply = ask_to_log_in(account, login);
    expect_status(reply, wire::STATUS_REFUSED, what);
    require(!reply.has_session(), what + " is refused, but there are ports in the reply");
}

static void expect_same_ports(const wire::Session &ports, const wire::Session &again) {
    require(ports.command_port() == again.command_port() && ports.event_port() == again.event_port(),
            "ports " + ports_text(ports) + " became " + ports_text(again));
}

static void expect_session_goes_on(Visit &visit) {
    Session &session = session_of(visit);
    wire::Session ports;
    ports.set_command_port(session.command_port);
    ports.set_event_port(session.event_port);
    expect_same_ports(ports, log_in(visit.own.account, monitored()));
    session_change_count(session);
}

static Device discover(const Visit &visit, const std::string &public_key) {
    std::string datagram;
    const std::optional<Device> device = ask_device(
        visit.address, discovery_request(public_key, visit.own.account.client_id), visit.options.timeout_ms, datagram);
    if (datagram.empty()) throw not_reachable("no device answered at " + visit.address);
    require(device.has_value(), "no reply of " + std::to_string(discovery_field_count) + " fields but of " +
                                    std::to_string(split_discovery_text(datagram).size()) + ": " +
                                    datagram.substr(0, shown_bytes_max));
    return *device;
}

static std::string expect_empty_answer(const Visit &visit, const std::vector<std::string> &frames) {
    const Account &account = visit.own.account;
    const Socket socket = connect_commands(account.login);
    const auto answer = exchange_frames(socket, account.login, frames, account.timeout_ms);
    require(answer.size() == 1, "answered with " + std::to_string(answer.size()) + " frames");
    require(answer[0].empty(), "answered with a frame of " + std::to_string(answer[0].size()) + " bytes");
    ask_static_discovery(account);
    return "one empty frame; the next request is answered";
}

std::string step_discover(Visit &visit) {
    visit.device = discover(visit, key_pair_public_pem(visit.pair));
    const Device &device = *visit.device;
    visit.own.account.login = device_login_endpoint(device);
    const std::string second = device.login_port == 0 ? "0" : std::to_string(second_port);
    require(device.login_port == 0 || device.login_port == auth_port,
            "the login port is " + device.fields[field_auth_port]);
    require(device.fields[field_second_port] == second, "the second port is " + device.fields[field_second_port]);
    return device.fields[field_model] + ", serial " + device.fields[field_serial] + ", takes logins at " +
           endpoint_text(visit.own.account.login);
}

std::string step_unwrap(Visit &visit) {
    const std::string &wrapped = device_of(visit).fields[field_wrapped_key];
    require(wraps_shared_key(visit.pair, device_of(visit)),
            "the device did not wrap the right key: '" + wrapped.substr(0, shown_bytes_max) + "'");
    return std::to_string(wrapped.size()) + " hexadecimal digits";
}

std::string step_discover_and_unwrap(Visit &visit) {
    const std::string found = step_discover(visit);
    step_unwrap(visit);
    return found + "; the shared key unwraps";
}

std::string step_discover_again(Visit &visit) {
    const KeyPair fresh = key_pair_new();
    require(wraps_shared_key(fresh, discover(visit, key_pair_public_pem(fresh))),
            "the answer's key is not wrapped for the second request");
    return "answered, with the key wrapped for the second request";
}

std::string step_discover_keyless(Visit &visit) {
    const std::string wrapped = discover(visit, "").fields[field_wrapped_key];
    require(wrapped.empty(), "the field is '" + wrapped.substr(0, shown_bytes_max) + "'");
    return "the field is empty";
}

std::string step_garbage(Visit &visit) { return expect_empty_answer(visit, {std::string(garbage_bytes, '\xff')}); }

std::string step_several_frames(Visit &visit) {
    wire::Request request;  // would be answered if it came alone
    request.set_client_id(visit.own.account.client_id);
    request.mutable_discovery();
    return expect_empty_answer(visit, {request_frame(request), request_frame(request)});
}

std::string step_unsupported(Visit &visit) {
    expect_status(ask_login_socket(visit.own.account, read_request(serial_key, false)), wire::STATUS_UNSUPPORTED,
                  "a read");
    return "a read is answered STATUS_UNSUPPORTED";
}

std::string step_static_discovery(Visit &visit) {
    std::string text = ask_static_discovery(visit.own.account);
    const std::optional<Device> known = device_from_static_text(text);
    require(known.has_value(), std::to_string(split_discovery_text(text).size()) + " fields in '" + text + "'");
    visit.static_text = text;
    for (const DiscoveryFieldIndex field : static_discovery_fields) {
        const std::string &said = known->fields[field], &discovered = device_of(visit).fields[field];
        require(said == discovered, std::string(discovery_fields[field].title) + " is '" + said +
                                        "', in the discovery reply '" + discovered + "'");
    }
    return text;
}

std::string step_log_in(Visit &visit) {
    visit.session = session_open(visit.own.account, monitored());
    session_listen(*visit.session);
    const auto is_in = [](int port, const PortRange &range) { return port >= range.first && port <= range.last; };
    require(is_in(visit.session->command_port, command_ports) && is_in(visit.session->event_port, event_ports),
            "out of range: " + ports_text(*visit.session));
    const Account &account = visit.own.account;
    return "user " + account.user + ", client id " + account.client_id + ": " + ports_text(*visit.session);
}

std::string step_renew(Visit &visit) {
    expect_session_goes_on(visit);
    return ports_text(*visit.session) + " again";
}

std::string step_wrong_password(Visit &visit) {
    const PassingId id = further_id(visit, "-wrong-password");
    Account wrong = id.account;
    wrong.password += "?";
    expect_login_refused(wrong, monitored(), "a wrong password");
    const wire::Session ports = log_in(id.account, monitored());
    expect_login_refused(wrong, monitored(), "a wrong password on a session");
    expect_same_ports(ports, log_in(id.account, monitored()));
    return "refused before and during a session; the right one gives ports " + ports_text(ports);
}

std::string step_other_user(Visit &visit) {
    session_of(visit);
    if (!visit.options.other_password) throw NotChecked{"it takes the other user's right --other-password"};
    const PassingId id = further_id(visit, "-other-user");
    Account other = id.account;
    other.user = visit.own.account.user == unrestricted_user ? restricted_user : unrestricted_user;
    other.password = *visit.options.other_password;
    log_in(other, monitored());  // else the refusal would mean nothing
    other.client_id = visit.own.account.client_id;
    expect_login_refused(other, monitored(), "a log-in as " + other.user);
    expect_session_goes_on(visit);
    return other.user + " is refused and the session goes on";
}

std::string step_show_discovery(Visit &visit) {
    if (visit.static_text.empty()) throw NotChecked{"there is no static discovery text"};
    LoginRequest login = monitored();
    login.discovery = visit.static_text;
    {
        const PassingId id = further_id(visit, "-right-text");
        log_in(id.account, login);
    }
    login.discovery->back() = '?';
    const PassingId id = further_id(visit, "-wrong-text");
    expect_login_refused(id.account, login, "a text with another last byte");
    return "accepted; with another last byte refused";
}

std::string step_echoed_fields(Visit &visit) {
    Session &session = session_of(visit);
    wire::Request request;
    request.mutable_change_count();
    session.sequence = odd_sequence;
    const std::string id = session_ask(session, request).client_id();  // the sequence is looked at with every reply
    require(id == session.account.client_id, "the reply's client_id is '" + id + "'");
    return id + ", " + std::to_string(session.sequence);
}
