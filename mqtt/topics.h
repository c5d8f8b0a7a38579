/* topics.h - how devices and keys are named on the broker. A key "/Device/Config/Name" of the device "QM240817" is
 * kesto/QM240817/state/Device/Config/Name. */
#pragma once

#include <optional>
#include <string>

/* Of the first topic level behind the root; whatever follows it belongs to a bridge, and not to a device. */
constexpr const char *bridges_level = "bridge";

bool is_below_root(const std::string &topic); /* it belongs to a bridge, or to a device */

/* Whether the text can stand between two slashes of a topic. */
bool is_topic_level(const std::string &text);

std::string device_topic(const std::string &serial, const std::string &rest); /* kesto/SERIAL/REST */
std::string bridge_topic(const std::string &id, const std::string &rest);     /* kesto/bridge/ID/REST */

/* None when the key does not begin with a slash, or cannot be a topic. */
std::optional<std::string> state_topic(const std::string &serial, const std::string &key);

/* The key that a topic below kesto/SERIAL/BRANCH names; none when it is not below it. */
std::optional<std::string> key_of_topic(const std::string &serial, const std::string &branch, const std::string &topic);

/* The serial of kesto/SERIAL/REST; none for other topics. */
std::optional<std::string> serial_of_topic(const std::string &topic, const std::string &rest);
