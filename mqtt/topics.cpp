#include "topics.h"

#include <mosquitto.h>

static constexpr const char *root = "kesto/";

bool is_below_root(const std::string &topic) { return topic.starts_with(root); }

bool is_topic_level(const std::string &text) {
    const bool is_utf8 = mosquitto_validate_utf8(text.c_str(), static_cast<int>(text.size())) == MOSQ_ERR_SUCCESS;
    return !text.empty() && is_utf8 && text.find_first_of("/+#") == std::string::npos;
}

std::string device_topic(const std::string &serial, const std::string &rest) { return root + serial + "/" + rest; }

std::string bridge_topic(const std::string &id, const std::string &rest) {
    return device_topic(bridges_level, id + "/" + rest);
}

std::optional<std::string> state_topic(const std::string &serial, const std::string &key) {
    if (!key.starts_with('/')) return {};
    std::string topic = device_topic(serial, "state" + key);
    if (mosquitto_pub_topic_check2(topic.c_str(), topic.size()) != MOSQ_ERR_SUCCESS) return {};
    const bool is_utf8 = mosquitto_validate_utf8(topic.c_str(), static_cast<int>(topic.size())) == MOSQ_ERR_SUCCESS;
    if (!is_utf8) return {};
    return topic;
}

std::optional<std::string> key_of_topic(const std::string &serial, const std::string &branch,
                                        const std::string &topic) {
    const std::string beginning = device_topic(serial, branch);
    if (!topic.starts_with(beginning + "/")) return {};
    return topic.substr(beginning.size());
}

std::optional<std::string> serial_of_topic(const std::string &topic, const std::string &rest) {
    const std::string beginning = root, end = "/" + rest;
    if (!topic.starts_with(beginning) || !topic.ends_with(end)) return {};
    if (topic.size() <= beginning.size() + end.size()) return {};
    std::string serial = topic.substr(beginning.size(), topic.size() - beginning.size() - end.size());
    if (!is_topic_level(serial) || serial == bridges_level) return {};
    return serial;
}
