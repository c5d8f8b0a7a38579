/* discovery.h - the datagrams of discovery. */
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include <kesto-client/device.h>

namespace kesto {

constexpr std::uint16_t discovery_port = 8004;
constexpr char field_separator = '\x1c';
constexpr size_t longest_datagram_bytes = 8191;
constexpr int last_port = 65535;
constexpr int repeat_ms = 500;  // a datagram may get lost

struct DiscoveryRequest {
    std::string datagram;
    std::string problem;  // of the id; the datagram is without it then
};
DiscoveryRequest discovery_request(const std::string &client_id, const std::string &public_key);

bool is_address(const std::string &text); /* numeric IPv4 */

/* Of every IPv4 interface, since none of them alone reaches every device: 255.255.255.255 needs a route, and a device
 * on this very machine may listen to the loopback interface only. */
std::set<std::string> broadcast_addresses();

/* A UDP socket that never blocks. */
class DiscoverySocket {
  public:
    DiscoverySocket();
    ~DiscoverySocket();
    DiscoverySocket(const DiscoverySocket &) = delete;
    DiscoverySocket &operator=(const DiscoverySocket &) = delete;

    int descriptor() const { return descriptor_; } /* -1: could not be opened, and `send` says so */

    /* Some of the addresses cannot be reached from most machines: empty unless all of them fail, else why. */
    std::string send(const std::set<std::string> &addresses, const std::string &datagram);

    struct Received {
        std::string text, address;  // where it came from
    };
    std::optional<Received> receive(); /* none: nothing is there */

  private:
    int descriptor_;
};

}  // namespace kesto
