/* output.h - everything that the client prints on standard output, as text for people or as JSON. Each print is
 * flushed, so that a reader at the other end of a pipe sees it at once. */
#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include <kesto-client/key_pair.h>

#include "session.h"

using Json = nlohmann::ordered_json;

/* One thing to print, in both forms. */
struct Output {
    Json json;
    std::string text;  // one or more lines, without the last line break
};

void print_output(bool json, const Output &output);
std::string printable(std::string_view text); /* valid UTF-8, with control characters as \xNN */

Output format_devices(const std::vector<kesto::Device> &devices, const kesto::KeyPair &pair);
Output format_login(const Account &account, const Ports &ports, bool stays);
Output format_value(const kesto::Value &value);
Output format_write(const kesto::WriteResult &result);
Output format_write_all(const kesto::MultiWriteResult &result);
Output format_published(const kesto::Published &published); /* with the local time of now */

/* Whose events are shown. */
struct Source {
    std::string address;
    std::string model, serial;  // empty while the device does not know itself yet
};

/* The same, with device and causer, and what the connection to the device has come to. */
Output format_published_by(const Source &source, const kesto::Published &published);
Output format_notice(const Source &source, const std::string &event, const std::string &text);
