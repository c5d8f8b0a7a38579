/* discovery.h - finding devices: one UDP datagram out, one from each device back.
 *
 * A device keeps a record of the client id in a discovery request until that id logs out. */
#pragma once

#include <array>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "key_pair.h"
#include "wire.h"

/* The fields of a reply, in the order of the wire. */
enum DiscoveryFieldIndex {
    field_model,
    field_firmware,
    field_oem_serial,
    field_auth_port,
    field_second_port,
    field_wrapped_key,
    field_slot,
    field_oem_manufacturer,
    field_oem_model,
    field_amplifier_name,
    field_serial,
    field_easy_swap_id,
    field_project_info,
    field_extra,
    discovery_field_count
};

struct DiscoveryField {
    const char *name;   // in JSON
    const char *title;  // for people
};
constexpr DiscoveryField discovery_fields[] = {
    {"model",               "hardware model"     },
    {"firmware",            "firmware version"   },
    {"oem_serial",          "OEM serial"         },
    {"auth_port",           "login port"         },
    {"second_port",         "second port"        },
    {"wrapped_key",         "wrapped key"        },
    {"slot",                "slot mark"          },
    {"oem_manufacturer",    "OEM manufacturer"   },
    {"oem_model",           "OEM model"          },
    {"amplifier_name",      "amplifier name"     },
    {"serial",              "serial"             },
    {"easy_swap_id",        "easy swap id"       },
    {"project_information", "project information"},
    {"extra",               "extra"              },
};
static_assert(std::size(discovery_fields) == discovery_field_count);

/* Those of them that the static discovery text has, in its order. */
constexpr DiscoveryFieldIndex static_discovery_fields[] = {
    field_model,     field_firmware, field_oem_serial, field_slot, field_oem_manufacturer,
    field_oem_model, field_serial,   field_extra,
};

struct Device {
    std::array<std::string, discovery_field_count> fields;  // without "@?D", "ZMQ:" and "!"
    std::vector<std::string> addresses;                     // one device can answer on several
    int login_port = 0;                                     // field_auth_port
    bool key_is_right = false;                              // the wrapped key is the shared key
};

struct DiscoverySearch {
    std::optional<std::string> address;  // ask this device only, until it answers; none: ask every device in reach
    std::string client_id;
    int wait_ms;
};

/* The devices that answered within the wait; a device that answered several times is one. What is no discovery reply is
 * ignored. */
std::vector<Device> discover_devices(const DiscoverySearch &search);

/* One datagram from one device: `datagram` is what it answered, empty when nothing came in time. None when that is no
 * discovery reply. key_is_right is left false: wraps_shared_key tells. */
std::optional<Device> ask_device(const std::string &address, const std::string &request, int wait_ms,
                                 std::string &datagram);
std::string discovery_request(const std::string &public_key_pem, const std::string &client_id);
bool wraps_shared_key(const KeyPair &pair, const Device &device);

/* The fields of a discovery reply or of a static discovery text, without "@?D" and "!"; none when it is not framed so.
 */
std::vector<std::string> split_discovery_text(std::string text);

/* What a static discovery text says; its other fields are empty. None when it is not such a text. */
std::optional<Device> device_from_static_text(const std::string &text);

/* Where the device takes logins. One that is bound to the loopback interface says port 0. */
Endpoint device_login_endpoint(const Device &device);
