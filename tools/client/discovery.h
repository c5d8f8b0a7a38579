/* discovery.h - finding devices: one UDP datagram out, one from each device back.
 *
 * A device keeps the client id of a discovery request on its books until that id logs out. */
#ifndef CLIENT_DISCOVERY_H
#define CLIENT_DISCOVERY_H

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "wire.h"

struct DiscoveryField {
    const char *name;   // in JSON
    const char *title;  // for people
};
/* The fields of a reply, in the order of the wire. */
constexpr std::array<DiscoveryField, 14> discovery_fields = {
    {
     {"model", "hardware model"},
     {"firmware", "firmware version"},
     {"oem_serial", "OEM serial"},
     {"auth_port", "login port"},
     {"second_port", "second port"},
     {"wrapped_key", "wrapped key"},
     {"slot", "slot mark"},
     {"oem_manufacturer", "OEM manufacturer"},
     {"oem_model", "OEM model"},
     {"amplifier_name", "amplifier name"},
     {"serial", "serial"},
     {"easy_swap_id", "easy swap id"},
     {"project_information", "project information"},
     {"extra", "extra"},
     }
};
enum DiscoveryFieldIndex {
    field_model = 0,
    field_auth_port = 3,
    field_second_port = 4,
    field_wrapped_key = 5,
    field_serial = 10
};

struct Device {
    std::array<std::string, discovery_fields.size()> fields;  // without "@?D", "ZMQ:" and "!"
    std::vector<std::string> addresses;                       // one device can answer on several
    int login_port = 0;                                       // field_auth_port
    bool key_is_right = false;                                // the wrapped key is the shared key
};

struct DiscoverySearch {
    std::optional<std::string> address;  // ask this one and be content with its answer; none: everybody in reach
    std::string client_id;
    int wait_ms;
};

/* The devices that answered within the wait; a device that answered several times is one. What is no discovery reply is
 * passed over. */
std::vector<Device> discover_devices(const DiscoverySearch &search);

/* Where the device takes logins. One that is bound to the loopback interface says port 0. */
Endpoint device_login_endpoint(const Device &device);

#endif
