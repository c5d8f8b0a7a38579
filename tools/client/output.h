/* output.h - everything that the client prints on standard output, as text for people or as JSON. Each print is
 * flushed, so that a reader at the other end of a pipe sees it at once. */
#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "discovery.h"
#include "session.h"

using Json = nlohmann::ordered_json;

/* One thing to say, in both forms. */
struct Saying {
    Json json;
    std::string text;  // one or more lines, without the last line break
};

void print_saying(bool json, const Saying &saying);
std::string printable(std::string_view text); /* without anything that a terminal would act on */

Saying say_devices(const std::vector<Device> &devices);
Saying say_login(const Account &account, const wire::Session &ports, bool stays);
Saying say_value(const wire::Value &value);
Saying say_write(const wire::WriteResult &result);
Saying say_write_all(const wire::MultiWriteResult &result);
Saying say_published(const wire::Message &message); /* with the local time of now */

/* Whose events are shown. */
struct Source {
    std::string address;
    std::string model, serial;  // empty while the device does not know itself yet
};
Saying say_published_by(const Source &source, const wire::Message &message); /* the same, with device and causer */
