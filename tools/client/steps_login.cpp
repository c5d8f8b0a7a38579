/* Each step asks for the very status that the contract names: a refusal that comes for another reason, or an empty
 * answer where a reply is due, does not pass for the one that is expected. */
#include <kesto-client/browser.h>

#include "interrupt.h"
#include "steps.h"

static constexpr int second_port = 61000;  // what a device that is not in loopback mode announces beside the login port
static constexpr size_t shown_bytes_max = 80, garbage_bytes = 32;
static constexpr uint64_t odd_sequence = 0xfedcba9876543210;

struct PortRange {
    int first, last;
};
static constexpr PortRange command_ports = {62001, 62998}, event_ports = {63001, 63998};

static const kesto::Device &device_of(const Visit &visit) {
    if (!visit.device) throw NotChecked{"there is no discovery reply"};
    return *visit.device;
}

static std::string ports_text(const Ports &ports) {
    return std::to_string(ports.command) + " and " + std::to_string(ports.event);
}

static kesto::Reply ask_login_socket(const Account &account, kesto::Operation operation) {
    return reply_of(kesto::ask_login_socket(the_loop(), account, std::move(operation)));
}

static void expect_login_refused(const Account &account, const std::string &what,
                                 const std::optional<std::string> &static_discovery = {}) {
    const kesto::Login login = {account.user, account.password, {}, static_discovery};
    const kesto::Reply reply = ask_login_socket(account, login);
    expect_status(reply, kesto::Status::refused, what);
    require(!std::holds_alternative<Ports>(reply.result), what + " is refused, but there are ports in the reply");
}

static void expect_same_ports(const Ports &ports, const Ports &again) {
    require(ports == again, "ports " + ports_text(ports) + " became " + ports_text(again));
}

static void expect_session_goes_on(Visit &visit) {
    Session &session = session_of(visit);
    expect_same_ports(session.ports(), log_in(visit.own.account, {}));
    session_change_count(session);
}

static kesto::Device discover(const Visit &visit, const std::string &public_key) {
    const kesto::DiscoveryAnswer answer = kesto::ask_device(visit.address, visit.own.account.client_id, public_key,
                                                            visit.options.timeout_ms, is_interrupted);
    if (is_interrupted()) throw interrupted();
    if (!answer.sentence.empty()) throw not_reachable(answer.sentence);
    if (answer.datagram.empty()) throw not_reachable("no device answered at " + visit.address);
    require(answer.device.has_value(), "no reply of " + std::to_string(std::size(kesto::device_fields)) +
                                           " fields but of " +
                                           std::to_string(kesto::split_discovery_text(answer.datagram).size()) + ": " +
                                           answer.datagram.substr(0, shown_bytes_max));
    return *answer.device;
}

static std::string expect_empty_answer(const Visit &visit, const std::vector<std::string> &frames) {
    const Account &account = visit.own.account;
    const auto [end, answer] = kesto::exchange_frames(the_loop(), account.login, frames, account.patience);
    reply_of(end);
    require(answer.size() == 1, "answered with " + std::to_string(answer.size()) + " frames");
    require(answer[0].empty(), "answered with a frame of " + std::to_string(answer[0].size()) + " bytes");
    ask_static_discovery(account);
    return "one empty frame; the next request is answered";
}

std::string step_discover(Visit &visit) {
    visit.device = discover(visit, visit.pair.public_pem());
    const kesto::Device &device = *visit.device;
    visit.own.account.login = kesto::login_endpoint(device);
    const bool in_loopback_mode = device.auth_port == "0";
    const std::string second = in_loopback_mode ? "0" : std::to_string(second_port);
    require(in_loopback_mode || device.auth_port == std::to_string(kesto::login_port),
            "the login port is " + device.auth_port);
    require(device.second_port == second, "the second port is " + device.second_port);
    return device.model + ", serial " + device.serial + ", takes logins at " +
           kesto::endpoint_text(visit.own.account.login);
}

std::string step_unwrap(Visit &visit) {
    const std::string &wrapped = device_of(visit).wrapped_key;
    require(visit.pair.is_right(device_of(visit)),
            "the device did not wrap the right key: '" + wrapped.substr(0, shown_bytes_max) + "'");
    return std::to_string(wrapped.size()) + " hexadecimal digits";
}

std::string step_discover_and_unwrap(Visit &visit) {
    const std::string found = step_discover(visit);
    step_unwrap(visit);
    return found + "; the shared key unwraps";
}

std::string step_discover_again(Visit &visit) {
    const kesto::KeyPair fresh;
    require(fresh.is_right(discover(visit, fresh.public_pem())),
            "the answer's key is not wrapped for the second request");
    return "answered, with the key wrapped for the second request";
}

std::string step_discover_keyless(Visit &visit) {
    const std::string wrapped = discover(visit, "").wrapped_key;
    require(wrapped.empty(), "the field is '" + wrapped.substr(0, shown_bytes_max) + "'");
    return "the field is empty";
}

std::string step_garbage(Visit &visit) { return expect_empty_answer(visit, {std::string(garbage_bytes, '\xff')}); }

std::string step_several_frames(Visit &visit) {
    const std::optional<std::string> frame = kesto::encode({visit.own.account.client_id, 0, kesto::Discovery{}});
    return expect_empty_answer(visit, {*frame, *frame});  // each would be answered if it came alone
}

std::string step_unsupported(Visit &visit) {
    expect_status(ask_login_socket(visit.own.account, kesto::Read{serial_key}), kesto::Status::unsupported, "a read");
    return "a read is answered STATUS_UNSUPPORTED";
}

static std::string title_of(std::string kesto::Device::*field) {
    for (const kesto::DeviceField &known : kesto::device_fields) {
        if (known.text == field) return known.name;
    }
    return "a field";
}

std::string step_static_discovery(Visit &visit) {
    std::string text = ask_static_discovery(visit.own.account);
    const std::optional<kesto::Device> known = kesto::device_from_static_text(text);
    require(known.has_value(), std::to_string(kesto::split_discovery_text(text).size()) + " fields in '" + text + "'");
    visit.static_text = text;
    for (std::string kesto::Device::*field : kesto::static_device_fields) {
        const std::string &said = (*known).*field, &discovered = device_of(visit).*field;
        require(said == discovered,
                title_of(field) + " is '" + said + "', in the discovery reply '" + discovered + "'");
    }
    return text;
}

std::string step_log_in(Visit &visit) {
    visit.session = session_open(visit.own.account, {});
    visit.session->listen();
    const Ports ports = visit.session->ports();
    const auto is_in = [](int port, const PortRange &range) { return port >= range.first && port <= range.last; };
    require(is_in(ports.command, command_ports) && is_in(ports.event, event_ports),
            "out of range: " + ports_text(ports));
    const Account &account = visit.own.account;
    return "user " + account.user + ", client id " + account.client_id + ": command port " +
           std::to_string(ports.command) + ", event port " + std::to_string(ports.event);
}

std::string step_renew(Visit &visit) {
    expect_session_goes_on(visit);
    return ports_text(visit.session->ports()) + " again";
}

std::string step_wrong_password(Visit &visit) {
    const PassingId id = further_id(visit, "-wrong-password");
    Account wrong = id.account;
    wrong.password += "?";
    expect_login_refused(wrong, "a wrong password");
    const Ports ports = log_in(id.account, {});
    expect_login_refused(wrong, "a wrong password on a session");
    expect_same_ports(ports, log_in(id.account, {}));
    return "refused before and during a session; the right one gives ports " + ports_text(ports);
}

std::string step_other_user(Visit &visit) {
    session_of(visit);
    if (!visit.options.other_password) throw NotChecked{"it takes the other user's right --other-password"};
    const PassingId id = further_id(visit, "-other-user");
    Account other = id.account;
    other.user = visit.own.account.user == unrestricted_user ? restricted_user : unrestricted_user;
    other.password = *visit.options.other_password;
    log_in(other, {});  // else the refusal would mean nothing
    other.client_id = visit.own.account.client_id;
    expect_login_refused(other, "a log-in as " + other.user);
    expect_session_goes_on(visit);
    return other.user + " is refused and the session goes on";
}

std::string step_show_discovery(Visit &visit) {
    if (visit.static_text.empty()) throw NotChecked{"there is no static discovery text"};
    std::string text = visit.static_text;
    {
        const PassingId id = further_id(visit, "-right-text");
        log_in(id.account, {}, text);
    }
    text.back() = '?';
    const PassingId id = further_id(visit, "-wrong-text");
    expect_login_refused(id.account, "a text with another last byte", text);
    return "accepted; with another last byte refused";
}

std::string step_echoed_fields(Visit &visit) {
    Session &session = session_of(visit);
    session.set_sequence(odd_sequence);
    const kesto::Reply reply = ask_raw(session, kesto::ChangeCount{});  // the sequence is looked at with every reply
    require(reply.client_id == session.account().client_id, "the reply's client_id is '" + reply.client_id + "'");
    return reply.client_id + ", " + std::to_string(reply.sequence);
}
