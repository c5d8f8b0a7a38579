#include "discovery.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "owned.h"

namespace kesto {

static constexpr const char *loopback_broadcast = "127.255.255.255", *limited_broadcast = "255.255.255.255";
static constexpr const char *family = "kesto-client";

static sockaddr *generic(sockaddr_in &address) { return reinterpret_cast<sockaddr *>(&address); }

static std::string address_text(const in_addr &address) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

static std::string datagram_of(const std::string &client_id, const std::string &public_key) {
    std::string datagram = "@?";
    for (const std::string &field : {std::string(family), std::string(), public_key})
        datagram += field + field_separator;
    return datagram + client_id + "!";
}

DiscoveryRequest discovery_request(const std::string &client_id, const std::string &public_key) {
    const bool is_id = client_id.find_first_of(std::string("!\0", 2)) == std::string::npos;
    std::string datagram = datagram_of(client_id, public_key);
    if (is_id && datagram.size() <= longest_datagram_bytes) return {std::move(datagram), ""};
    const std::string problem = is_id ? "the client id is too long" : "a client id cannot hold '!' or a NUL byte";
    return {datagram_of("", public_key), problem};
}

bool is_address(const std::string &text) {
    in_addr address;
    return text.find('\0') == std::string::npos && inet_pton(AF_INET, text.c_str(), &address) == 1;
}

std::set<std::string> broadcast_addresses() {
    std::set<std::string> addresses = {loopback_broadcast, limited_broadcast};
    ifaddrs *found = nullptr;
    if (getifaddrs(&found) != 0) return addresses;
    const std::unique_ptr<ifaddrs, ByPointer<freeifaddrs>> list(found);
    for (const ifaddrs *i = list.get(); i != nullptr; i = i->ifa_next) {
        const bool usable = (i->ifa_flags & IFF_BROADCAST) != 0 && (i->ifa_flags & IFF_UP) != 0;
        if (!usable || i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET || i->ifa_broadaddr == nullptr)
            continue;
        sockaddr_in broadcast;
        memcpy(&broadcast, i->ifa_broadaddr, sizeof broadcast);
        addresses.insert(address_text(broadcast.sin_addr));
    }
    return addresses;
}

DiscoverySocket::DiscoverySocket() : descriptor_(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    const int yes = 1;
    if (descriptor_ >= 0) setsockopt(descriptor_, SOL_SOCKET, SO_BROADCAST, &yes, sizeof yes);
}

DiscoverySocket::~DiscoverySocket() {
    if (descriptor_ >= 0) close(descriptor_);
}

std::string DiscoverySocket::send(const std::set<std::string> &addresses, const std::string &datagram) {
    if (descriptor_ < 0) return "cannot open a UDP socket";
    std::string reason;
    size_t failed_count = 0;
    for (const std::string &address : addresses) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(discovery_port);
        inet_pton(AF_INET, address.c_str(), &to.sin_addr);
        if (sendto(descriptor_, datagram.data(), datagram.size(), 0, generic(to), sizeof to) >= 0) continue;
        reason = "cannot send to " + address + ": " + strerror(errno);
        ++failed_count;
    }
    return failed_count == addresses.size() ? reason : "";
}

std::optional<DiscoverySocket::Received> DiscoverySocket::receive() {
    char buffer[longest_datagram_bytes + 1];
    sockaddr_in from{};
    socklen_t from_length = sizeof from;
    ssize_t length = -1;
    do {
        length = recvfrom(descriptor_, buffer, sizeof buffer, 0, generic(from), &from_length);
    } while (length < 0 && (errno == EINTR || errno == ECONNREFUSED));  // the refusal of a datagram sent before
    if (length < 0) return std::nullopt;
    return Received{std::string(buffer, static_cast<size_t>(length)), address_text(from.sin_addr)};
}

}  // namespace kesto
