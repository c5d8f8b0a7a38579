/* device.h - what a device says of itself in discovery. */
#pragma once

#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "api.h"

namespace kesto {

constexpr int login_port = 60000;
constexpr const char *loopback_address = "127.0.0.1";

struct Endpoint {
    std::string address;  // numeric IPv4
    int port = login_port;

    bool operator==(const Endpoint &) const = default;
};
KESTO_CLIENT_API std::string endpoint_text(const Endpoint &endpoint); /* "127.0.0.1:60000" */

/* Texts come from the network as they are and need not be UTF-8. */
struct Device {
    std::string model, firmware, oem_serial;
    std::string auth_port, second_port;  // as texts, without "ZMQ:"; "0": it takes connections from itself only
    std::string wrapped_key;             // KeyPair::unwrap; empty when none was asked for
    std::string slot, oem_manufacturer, oem_model, amplifier_name, serial, easy_swap_id;
    std::string project_information, extra;  // cannot be relied on when `cut`
    bool cut = false;                        // the reply did not fit into a datagram

    std::vector<std::string> addresses;  // that it answers from, the one to connect to first
};

/* The texts of a discovery reply in the order of the wire, with names for programs. */
struct DeviceField {
    std::string Device::*text;
    const char *name;
};
constexpr DeviceField device_fields[] = {
    {&Device::model,               "model"              },
    {&Device::firmware,            "firmware"           },
    {&Device::oem_serial,          "oem_serial"         },
    {&Device::auth_port,           "auth_port"          },
    {&Device::second_port,         "second_port"        },
    {&Device::wrapped_key,         "wrapped_key"        },
    {&Device::slot,                "slot"               },
    {&Device::oem_manufacturer,    "oem_manufacturer"   },
    {&Device::oem_model,           "oem_model"          },
    {&Device::amplifier_name,      "amplifier_name"     },
    {&Device::serial,              "serial"             },
    {&Device::easy_swap_id,        "easy_swap_id"       },
    {&Device::project_information, "project_information"},
    {&Device::extra,               "extra"              },
};

/* Those of them that the static discovery text has, in its order. */
constexpr std::string Device::*static_device_fields[] = {
    &Device::model,     &Device::firmware, &Device::oem_serial, &Device::slot, &Device::oem_manufacturer,
    &Device::oem_model, &Device::serial,   &Device::extra,
};

/* Where the device takes logins: at 127.0.0.1 when it takes connections from itself only. */
KESTO_CLIENT_API Endpoint login_endpoint(const Device &device);

/* What a discovery reply says, without addresses; none when it is no discovery reply. */
KESTO_CLIENT_API std::optional<Device> device_from_reply(const std::string &reply);

/* What a static discovery text says; its other fields are empty. None when it is not such a text. */
KESTO_CLIENT_API std::optional<Device> device_from_static_text(const std::string &text);

/* The static discovery text that belongs to the fields of a discovery reply: what to give to a login, so that it is
 * refused when another device has taken over the address. Not for a reply that was `cut`. */
KESTO_CLIENT_API std::string static_text_of(const Device &device);

/* The fields of either text, without "@?D" and "!", however many; none when it is not framed so. */
KESTO_CLIENT_API std::vector<std::string> split_discovery_text(const std::string &text);

}  // namespace kesto
