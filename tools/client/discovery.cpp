/* The request goes to every broadcast address of this machine, since none of them alone reaches every device:
 * 255.255.255.255 needs a route, and a device on this very machine may listen to the loopback interface only. */
#include "discovery.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <set>

#include <gio/gio.h>

#include "failure.h"
#include "owned.h"

static constexpr guint16 discovery_port = 8004;
static constexpr char separator = '\x1c';
static constexpr std::string_view request_head = "@?", reply_head = "@?D", port_head = "ZMQ:";
static constexpr size_t reply_limit_bytes = 8192, longest_reply_bytes = reply_limit_bytes - 1;
static constexpr gint64 repeat_ms = 500;  // a datagram may get lost
static constexpr const char *loopback_broadcast = "127.255.255.255", *limited_broadcast = "255.255.255.255";

static std::set<std::string> broadcast_addresses() {
    std::set<std::string> addresses = {loopback_broadcast, limited_broadcast};
    ifaddrs *found = nullptr;
    if (getifaddrs(&found) != 0) return addresses;
    const std::unique_ptr<ifaddrs, ByPointer<freeifaddrs>> list(found);
    for (const ifaddrs *i = list.get(); i != nullptr; i = i->ifa_next) {
        const bool usable = (i->ifa_flags & IFF_BROADCAST) != 0 && (i->ifa_flags & IFF_UP) != 0;
        if (!usable || i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET || i->ifa_broadaddr == nullptr)
            continue;
        g_autoptr(GSocketAddress) broadcast = g_socket_address_new_from_native(i->ifa_broadaddr, sizeof(sockaddr_in));
        if (broadcast == nullptr) continue;
        g_autofree char *text =
            g_inet_address_to_string(g_inet_socket_address_get_address(G_INET_SOCKET_ADDRESS(broadcast)));
        addresses.insert(text);
    }
    return addresses;
}

static GSocket *open_socket() {
    g_autoptr(GError) error = nullptr;
    GSocket *socket = g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_DATAGRAM, G_SOCKET_PROTOCOL_UDP, &error);
    if (socket == nullptr) throw not_reachable(error->message);
    g_socket_set_broadcast(socket, TRUE);
    return socket;
}

/* Some of the addresses cannot be reached from most machines: only when all of them fail is it a failure. */
static void send_to_all(GSocket *socket, const std::set<std::string> &addresses, const std::string &request) {
    std::string reason;
    size_t failed_count = 0;
    for (const std::string &address : addresses) {
        g_autoptr(GError) error = nullptr;
        g_autoptr(GSocketAddress) target = g_inet_socket_address_new_from_string(address.c_str(), discovery_port);
        if (g_socket_send_to(socket, target, request.data(), request.size(), nullptr, &error) >= 0) continue;
        reason = error->message;
        ++failed_count;
    }
    if (failed_count == addresses.size()) throw not_reachable(reason);
}

static bool take_prefix(std::string &text, std::string_view prefix) {
    if (!text.starts_with(prefix)) return false;
    text.erase(0, prefix.size());
    return true;
}

static std::vector<std::string> split_fields(std::string_view text) {
    std::vector<std::string> fields;
    for (size_t begin = 0, end = 0; end != std::string_view::npos; begin = end + 1) {
        end = text.find(separator, begin);
        fields.emplace_back(text.substr(begin, end - begin));
    }
    return fields;
}

/* The project information is whatever a client wrote, and may hold separators. */
static void join_project_info(std::vector<std::string> &fields) {
    while (fields.size() > discovery_field_count) {
        const auto rest = fields.begin() + field_project_info + 1;
        fields[field_project_info] += separator + *rest;
        fields.erase(rest);
    }
}

static std::optional<int> parse_port(const std::string &text) {
    int port = 0;
    const char *text_end = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), text_end, port);
    if (error != std::errc() || end != text_end || port < 0 || port > port_max) return std::nullopt;
    return port;
}

/* A reply that was too long has lost its end somewhere in the project information, and with it the last field. */
static std::string with_end(std::string reply) {
    constexpr size_t last_separators = discovery_field_count - 1;
    const auto separators = static_cast<size_t>(std::count(reply.begin(), reply.end(), separator));
    const bool is_whole = separators >= last_separators && reply.ends_with('!');
    if (reply.size() < longest_reply_bytes || is_whole || separators < last_separators - 1) return reply;
    return reply + separator + '!';
}

static std::optional<Device> device_from_reply(const std::string &reply) {
    std::vector<std::string> fields = split_discovery_text(with_end(reply));
    join_project_info(fields);
    if (fields.size() != discovery_field_count) return std::nullopt;
    for (const int field : {field_auth_port, field_second_port}) {
        if (!take_prefix(fields[static_cast<size_t>(field)], port_head)) return std::nullopt;
    }
    const std::optional<int> login_port = parse_port(fields[field_auth_port]);
    if (!login_port) return std::nullopt;
    Device device;
    device.login_port = *login_port;
    std::move(fields.begin(), fields.end(), device.fields.begin());
    return device;
}

/* The answer to one request differs from the next only in the wrapped key, whose padding is random. */
static bool same_device(const Device &a, const Device &b) {
    return a.fields[field_model] == b.fields[field_model] && a.fields[field_serial] == b.fields[field_serial];
}

static void remember(std::vector<Device> &devices, Device device, const std::string &address) {
    const auto known =
        std::find_if(devices.begin(), devices.end(), [&](const Device &other) { return same_device(device, other); });
    if (known == devices.end()) {
        device.addresses = {address};
        devices.push_back(std::move(device));
        return;
    }
    auto &addresses = known->addresses;
    if (std::find(addresses.begin(), addresses.end(), address) == addresses.end()) addresses.push_back(address);
}

struct Datagram {
    std::string text, address;  // where it came from
};

static std::optional<Datagram> receive_datagram(GSocket *socket) {
    char buffer[reply_limit_bytes];
    g_autoptr(GSocketAddress) source = nullptr;
    const gssize length = g_socket_receive_from(socket, &source, buffer, sizeof buffer, nullptr, nullptr);
    if (length <= 0) return std::nullopt;
    g_autofree char *address =
        g_inet_address_to_string(g_inet_socket_address_get_address(G_INET_SOCKET_ADDRESS(source)));
    return Datagram{std::string(buffer, static_cast<size_t>(length)), address};
}

/* Sends the request again and again until the wait is over or `take` returns false. */
static void collect_replies(const std::set<std::string> &targets, const std::string &request, int wait_ms,
                            const std::function<bool(const Datagram &)> &take) {
    g_autoptr(GSocket) socket = open_socket();
    const gint64 end_us = g_get_monotonic_time() + wait_ms * us_per_ms;
    gint64 send_us = 0;
    for (gint64 now_us = g_get_monotonic_time(); now_us < end_us; now_us = g_get_monotonic_time()) {
        if (zsys_interrupted) throw interrupted();
        if (now_us >= send_us) {
            send_to_all(socket, targets, request);
            send_us = now_us + repeat_ms * us_per_ms;
        }
        const gint64 wait_us = std::min(end_us, send_us) - now_us;
        if (!g_socket_condition_timed_wait(socket, G_IO_IN, wait_us, nullptr, nullptr)) continue;
        const std::optional<Datagram> datagram = receive_datagram(socket);
        if (datagram && !take(*datagram)) return;
    }
}

std::string discovery_request(const std::string &public_key, const std::string &client_id) {
    std::string request(request_head);
    for (const std::string &field : {std::string("kesto-client"), std::string(), public_key})
        request += field + separator;
    return request + client_id + "!";
}

std::vector<std::string> split_discovery_text(std::string text) {
    if (!take_prefix(text, reply_head) || !text.ends_with('!')) return {};
    text.pop_back();
    return split_fields(text);
}

std::optional<Device> device_from_static_text(const std::string &text) {
    const std::vector<std::string> fields = split_discovery_text(text);
    if (fields.size() != std::size(static_discovery_fields)) return std::nullopt;
    Device device;
    for (size_t i = 0; i < fields.size(); ++i) device.fields[static_discovery_fields[i]] = fields[i];
    return device;
}

std::optional<Device> ask_device(const std::string &address, const std::string &request, int wait_ms,
                                 std::string &datagram) {
    datagram.clear();
    collect_replies({address}, request, wait_ms, [&](const Datagram &reply) {
        datagram = reply.text;
        return false;
    });
    std::optional<Device> device = device_from_reply(datagram);
    if (device) device->addresses = {address};
    return device;
}

std::vector<Device> discover_devices(const DiscoverySearch &search) {
    const KeyPair pair = key_pair_new();
    const std::string request = discovery_request(key_pair_public_pem(pair), search.client_id);
    const std::set<std::string> targets =
        search.address ? std::set<std::string>{*search.address} : broadcast_addresses();
    std::vector<Device> devices;
    collect_replies(targets, request, search.wait_ms, [&](const Datagram &reply) {
        std::optional<Device> device = device_from_reply(reply.text);
        if (!device) return true;
        device->key_is_right = wraps_shared_key(pair, *device);
        remember(devices, std::move(*device), reply.address);
        return !search.address;
    });
    return devices;
}

bool wraps_shared_key(const KeyPair &pair, const Device &device) {
    return key_pair_unwrap(pair, device.fields[field_wrapped_key]) == shared_key;
}

Endpoint device_login_endpoint(const Device &device) {
    if (device.login_port == 0) return {loopback_address, auth_port};
    return {device.addresses.front(), device.login_port};
}
