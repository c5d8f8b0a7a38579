/* tree.h - the device's parameters: one text for each slash-separated key. */
#pragma once

#include <map>
#include <string>

#include <gio/gio.h>

constexpr int channel_count = 8;

using Tree = std::map<std::string, std::string>;

/* Every key of an eight-channel amplifier with the value it leaves the factory with. */
Tree tree_of_device();

/* "a{ss}" with each key at or below `key`, floating; NULL when there is none. A trailing slash makes no difference,
 * and "/" is everything. Only whole segments count: "/A/Bc" is not below "/A/B". */
GVariant *tree_read_below(const Tree &tree, const std::string &key);
