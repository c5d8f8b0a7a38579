#include "output.h"

#include <charconv>
#include <cstdio>

#include <gio/gio.h>

static std::string local_time(const char *format) {
    g_autoptr(GDateTime) now = g_date_time_new_now_local();
    g_autofree char *seconds = g_date_time_format(now, format);
    g_autofree char *text = g_strdup_printf("%s.%03d", seconds, g_date_time_get_microsecond(now) / 1000);
    return text;
}

static std::string assignment_text(const std::string &key, const std::string &value) {
    return printable(key) + " = " + printable(value);
}

static void add_line(std::string &text, const std::string &line) {
    if (!text.empty()) text += '\n';
    text += line;
}

static std::string device_text(const Device &device) {
    std::string text;
    for (const std::string &address : device.addresses) text += (text.empty() ? "device at " : ", ") + address;
    for (size_t i = 0; i < discovery_field_count; ++i) {
        g_autofree char *title = g_strdup_printf("  %-20s ", discovery_fields[i].title);
        add_line(text, title + printable(device.fields[i]));
    }
    add_line(text, std::string("  unwrapped key        ") + (device.key_is_right ? "right" : "WRONG"));
    add_line(text, "  log in at            " + endpoint_text(device_login_endpoint(device)));
    return text;
}

static Json device_json(const Device &device) {
    Json json;
    json["addresses"] = device.addresses;
    for (size_t i = 0; i < discovery_field_count; ++i) json[discovery_fields[i].name] = device.fields[i];
    json["key_is_right"] = device.key_is_right;
    json["login"] = endpoint_text(device_login_endpoint(device));
    return json;
}

/* The shortest decimal that is this float: as a double, 84.9f would print as 84.9000015258789. */
static double short_decimal(float value) {
    char text[32];
    const auto [end, error] = std::to_chars(text, text + sizeof text - 1, value);
    *end = '\0';
    return error == std::errc() ? g_ascii_strtod(text, nullptr) : static_cast<double>(value);
}

static Output format_alarm(const wire::Alarm &alarm) {
    const auto value = static_cast<double>(alarm.value());
    const char *active = alarm.active() != 0 ? ", active" : "";
    g_autofree char *text =
        g_strdup_printf("alarm %d on channel %d: value %g%s", alarm.code(), alarm.channel(), value, active);
    return {
        {{"event", "alarm"},
         {"code", alarm.code()},
         {"active", alarm.active()},
         {"channel", alarm.channel()},
         {"value", short_decimal(alarm.value())}},
        text
    };
}

static Output format_change(const wire::Change &change) {
    Json json = {
        {"event", "change"      },
        {"key",   change.key()  },
        {"value", change.value()}
    };
    std::string text = "changed " + assignment_text(change.key(), change.value());
    if (change.has_type()) {
        json["type"] = change.type();
        if (!change.type().empty()) text += " (" + printable(change.type()) + ")";
    }
    return {json, text};
}

static Output format_event(const wire::Event &event) {
    switch (event.kind_case()) {
        case wire::Event::kAlarm: return format_alarm(event.alarm());
        case wire::Event::kChange: return format_change(event.change());
        case wire::Event::kSnapshotLoaded: {
            const uint32_t slot = event.snapshot_loaded().slot();
            return {
                {{"event", "snapshot_loaded"}, {"slot", slot}},
                "snapshot " + std::to_string(slot) + " loaded"
            };
        }
        case wire::Event::kSpeakerPresetLoaded: return {{{"event", "speaker_preset_loaded"}}, "speaker preset loaded"};
        case wire::Event::KIND_NOT_SET: break;
    }
    return {{{"event", "unknown"}}, "event of an unknown kind"};
}

/* The reply to another client's write, as that client got it; on one line, as every event. */
static Output format_echo(const wire::Reply &reply) {
    const bool several = reply.has_multi_write();
    const Output what = several ? format_write_all(reply.multi_write()) : format_write(reply.write());
    std::string text = what.text;
    for (size_t end = 0; (end = text.find('\n', end)) != std::string::npos;) text.replace(end, 1, "; ");
    Json json = {
        {"event",     "echo"           },
        {"client_id", reply.client_id()}
    };
    json[several ? "multi_write" : "write"] = what.json;
    return {json, "client " + printable(reply.client_id()) + " wrote " + text};
}

static Output format_what(const wire::Message &message) {
    return message.has_event() ? format_event(message.event()) : format_echo(message.reply());
}

/* The time that a message came at, and `rest`. */
static Output format_timed(const Json &rest, const std::string &text) {
    Output output{{{"time", local_time("%Y-%m-%dT%H:%M:%S")}}, local_time("%H:%M:%S") + " " + text};
    output.json.update(rest);
    return output;
}

static std::string source_text(const Source &source) {
    return source.serial.empty() ? source.address : printable(source.model) + " " + printable(source.serial);
}

void print_output(bool json, const Output &output) {
    // What devices say comes unchecked from the network; a byte that is not UTF-8 must not end the program.
    const std::string text = json ? output.json.dump(-1, ' ', false, Json::error_handler_t::replace) : output.text;
    printf("%s\n", text.c_str());
    fflush(stdout);
}

std::string printable(std::string_view text) {
    g_autofree char *valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
    std::string shown;
    for (const char *c = valid; *c != '\0'; c = g_utf8_next_char(c)) {
        const gunichar code = g_utf8_get_char(c);
        if (g_unichar_iscntrl(code)) {
            g_autofree char *escaped = g_strdup_printf("\\x%02x", code);
            shown += escaped;
        } else {
            shown.append(c, static_cast<size_t>(g_utf8_next_char(c) - c));
        }
    }
    return shown;
}

Output format_devices(const std::vector<Device> &devices) {
    Output output{Json::array(), ""};
    for (const Device &device : devices) {
        output.json.push_back(device_json(device));
        add_line(output.text, device_text(device));
    }
    return output;
}

Output format_login(const Account &account, const wire::Session &ports, bool stays) {
    const std::string id = printable(account.client_id);
    const std::string end =
        stays ? "it logs out: kesto-client --id " + id + " logout" : "its last command connection closes";
    g_autofree char *text = g_strdup_printf(
        "logged in as %s with client id %s\ncommand port  %d\nevent port    %d\nthe session stays until %s",
        printable(account.user).c_str(), id.c_str(), ports.command_port(), ports.event_port(), end.c_str());
    return {
        {{"client_id", account.client_id},
         {"user", account.user},
         {"command_port", ports.command_port()},
         {"event_port", ports.event_port()}},
        text
    };
}

Output format_value(const wire::Value &value) {
    Output output{
        {{"key", value.key()}, {"signature", value.signature()}},
        ""
    };
    if (value.signature() != signature_of_pairs) {
        output.json["value"] = value.text();
        output.text = printable(value.text());
        return output;
    }
    Json &entries = output.json["entries"] = Json::object();
    for (const wire::Pair &pair : value.entries()) {
        entries[pair.key()] = pair.value();
        add_line(output.text, assignment_text(pair.key(), pair.value()));
    }
    return output;
}

Output format_write(const wire::WriteResult &result) {
    const Json json = {
        {"key",    result.key()   },
        {"value",  result.value() },
        {"type",   result.type()  },
        {"result", result.result()}
    };
    std::string text = assignment_text(result.key(), result.value());
    if ((result.type() & write_is_lock) != 0) text += " (a lock)";
    if (result.result() != 0) text += " (result " + std::to_string(result.result()) + ")";
    return {json, text};
}

Output format_write_all(const wire::MultiWriteResult &result) {
    Output output{Json::array(), ""};
    for (int i = 0; i < result.pairs_size(); ++i) {
        const wire::Pair &pair = result.pairs(i);
        Json json = {
            {"key",   pair.key()  },
            {"value", pair.value()}
        };
        std::string line = assignment_text(pair.key(), pair.value());
        if (i < result.results_size()) {
            json["result"] = result.results(i);
            line += " (" + printable(result.results(i)) + ")";
        }
        output.json.push_back(json);
        add_line(output.text, line);
    }
    return output;
}

Output format_published(const wire::Message &message) {
    const Output what = format_what(message);
    return format_timed(what.json, what.text);
}

Output format_published_by(const Source &source, const wire::Message &message) {
    const Output what = format_what(message);
    Json json;
    json["device"] = {
        {"address", source.address},
        {"model",   source.model  },
        {"serial",  source.serial }
    };
    json["client_id"] = nullptr;  // the device itself
    json.update(what.json);       // an echo names its client
    return format_timed(json, source_text(source) + ": " + (message.has_event() ? "device: " : "") + what.text);
}
