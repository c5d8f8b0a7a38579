#include <algorithm>
#include <string_view>

#include <kesto-client/device.h>

#include "discovery.h"

namespace kesto {

static constexpr std::string_view reply_head = "@?D", port_head = "ZMQ:";
static constexpr char end_mark = '!';
static constexpr size_t field_count = std::size(device_fields), project_information_index = 12;

static bool take_prefix(std::string &text, std::string_view prefix) {
    if (!text.starts_with(prefix)) return false;
    text.erase(0, prefix.size());
    return true;
}

static std::vector<std::string> split_fields(std::string_view text) {
    std::vector<std::string> fields;
    for (size_t begin = 0, end = 0; end != std::string_view::npos; begin = end + 1) {
        end = text.find(field_separator, begin);
        fields.emplace_back(text.substr(begin, end - begin));
    }
    return fields;
}

/* The project information is whatever a client wrote, and may hold separators. */
static void join_project_information(std::vector<std::string> &fields) {
    while (fields.size() > field_count) {
        const auto rest = fields.begin() + project_information_index + 1;
        fields[project_information_index] += field_separator + *rest;
        fields.erase(rest);
    }
}

/* A reply that was too long has lost its end somewhere in the project information, and with it the last field. */
static bool is_cut(const std::string &reply) {
    constexpr size_t last_separators = field_count - 1;
    const auto separators = static_cast<size_t>(std::count(reply.begin(), reply.end(), field_separator));
    const bool is_whole = separators >= last_separators && reply.ends_with(end_mark);
    return reply.size() >= longest_datagram_bytes && !is_whole && separators >= last_separators - 1;
}

static bool is_port(const std::string &text) {
    constexpr size_t digits_max = 5;
    const bool digits = std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    return digits && !text.empty() && text.size() <= digits_max && std::stoi(text) <= last_port;
}

std::string endpoint_text(const Endpoint &endpoint) { return endpoint.address + ":" + std::to_string(endpoint.port); }

Endpoint login_endpoint(const Device &device) {
    const int port = is_port(device.auth_port) ? std::stoi(device.auth_port) : 0;
    if (port == 0) return {loopback_address, login_port};
    return {device.addresses.empty() ? "" : device.addresses.front(), port};
}

std::optional<Device> device_from_reply(const std::string &reply) {
    Device device;
    device.cut = is_cut(reply);
    std::vector<std::string> fields = split_discovery_text(device.cut ? reply + field_separator + end_mark : reply);
    join_project_information(fields);
    if (fields.size() != field_count) return std::nullopt;
    for (size_t i = 0; i < field_count; ++i) device.*device_fields[i].text = fields[i];
    for (std::string *port : {&device.auth_port, &device.second_port}) {
        if (!take_prefix(*port, port_head)) return std::nullopt;
    }
    if (!is_port(device.auth_port)) return std::nullopt;
    return device;
}

std::optional<Device> device_from_static_text(const std::string &text) {
    const std::vector<std::string> fields = split_discovery_text(text);
    if (fields.size() != std::size(static_device_fields)) return std::nullopt;
    Device device;
    for (size_t i = 0; i < fields.size(); ++i) device.*static_device_fields[i] = fields[i];
    return device;
}

std::string static_text_of(const Device &device) {
    std::string text(reply_head);
    for (std::string Device::*field : static_device_fields) {
        if (field != static_device_fields[0]) text += field_separator;
        text += device.*field;
    }
    return text + end_mark;
}

std::vector<std::string> split_discovery_text(const std::string &text) {
    std::string inner = text;
    if (!take_prefix(inner, reply_head) || !inner.ends_with(end_mark)) return {};
    inner.pop_back();
    return split_fields(inner);
}

}  // namespace kesto
