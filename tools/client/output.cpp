#include "output.h"

#include <algorithm>
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

static std::string login_text(const kesto::Device &device) {
    return kesto::endpoint_text(kesto::login_endpoint(device));
}

static Json device_json(const kesto::Device &device, const kesto::KeyPair &pair) {
    Json json;
    json["addresses"] = device.addresses;
    for (const kesto::DeviceField &field : kesto::device_fields) json[field.name] = device.*field.text;
    json["key_is_right"] = pair.is_right(device);
    json["login"] = login_text(device);
    return json;
}

using Row = std::vector<std::string>;

static Row device_row(const kesto::Device &device, const kesto::KeyPair &pair) {
    std::string addresses;
    for (const std::string &address : device.addresses) addresses += (addresses.empty() ? "" : ",") + address;
    const std::string key = pair.is_right(device) ? "right" : "WRONG";
    Row row = {device.serial, device.model, device.firmware, device.amplifier_name, addresses, login_text(device), key};
    for (std::string &text : row) text = text.empty() ? "-" : printable(text);
    return row;
}

/* Each column as wide as its widest text. */
static std::string table_text(const std::vector<Row> &rows) {
    const auto width_of = [](const std::string &text) { return static_cast<size_t>(g_utf8_strlen(text.c_str(), -1)); };
    std::vector<size_t> widths(rows.front().size());
    for (const Row &row : rows) {
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width_of(row[i]));
    }
    std::string text;
    for (const Row &row : rows) {
        std::string line;
        for (size_t i = 0; i + 1 < row.size(); ++i) line += row[i] + std::string(widths[i] - width_of(row[i]) + 2, ' ');
        add_line(text, line + row.back());
    }
    return text;
}

/* The shortest decimal that is this float: as a double, 84.9f would print as 84.9000015258789. */
static double short_decimal(float value) {
    char text[32];
    const auto [end, error] = std::to_chars(text, text + sizeof text - 1, value);
    *end = '\0';
    return error == std::errc() ? g_ascii_strtod(text, nullptr) : static_cast<double>(value);
}

static Output format_event(const kesto::Alarm &alarm) {
    const char *active = alarm.active != 0 ? ", active" : "";
    g_autofree char *text = g_strdup_printf("alarm %d on channel %d: value %g%s", alarm.code, alarm.channel,
                                            static_cast<double>(alarm.value), active);
    return {
        {{"event", "alarm"},
         {"code", alarm.code},
         {"active", alarm.active},
         {"channel", alarm.channel},
         {"value", short_decimal(alarm.value)}},
        text
    };
}

static Output format_event(const kesto::Change &change) {
    Json json = {
        {"event", "change"    },
        {"key",   change.key  },
        {"value", change.value}
    };
    std::string text = "changed " + assignment_text(change.key, change.value);
    if (change.type) {
        json["type"] = *change.type;
        if (!change.type->empty()) text += " (" + printable(*change.type) + ")";
    }
    return {json, text};
}

static Output format_event(const kesto::SnapshotLoaded &loaded) {
    return {
        {{"event", "snapshot_loaded"}, {"slot", loaded.slot}},
        "snapshot " + std::to_string(loaded.slot) + " loaded"
    };
}

static Output format_event(const kesto::SpeakerPresetLoaded &) {
    return {{{"event", "speaker_preset_loaded"}}, "speaker preset loaded"};
}

static Output format_event(std::monostate) { return {{{"event", "unknown"}}, "event of an unknown kind"}; }

/* The reply to another client's write, as that client got it; on one line, as every event. */
static Output format_event(const kesto::Reply &reply) {
    const auto *several = std::get_if<kesto::MultiWriteResult>(&reply.result);
    const auto *single = std::get_if<kesto::WriteResult>(&reply.result);
    const Output what = several != nullptr ? format_write_all(*several)
                                           : format_write(single != nullptr ? *single : kesto::WriteResult{});
    std::string text = what.text;
    for (size_t end = 0; (end = text.find('\n', end)) != std::string::npos;) text.replace(end, 1, "; ");
    Json json = {
        {"event",     "echo"         },
        {"client_id", reply.client_id}
    };
    json[several != nullptr ? "multi_write" : "write"] = what.json;
    return {json, "client " + printable(reply.client_id) + " wrote " + text};
}

static Output format_what(const kesto::Published &published) {
    return std::visit([](const auto &event) { return format_event(event); }, published);
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

Output format_devices(const std::vector<kesto::Device> &devices, const kesto::KeyPair &pair) {
    Json json = Json::array();
    std::vector<Row> rows = {
        {"SERIAL", "MODEL", "FIRMWARE", "NAME", "ADDRESSES", "LOG IN AT", "KEY"}
    };
    for (const kesto::Device &device : devices) {
        json.push_back(device_json(device, pair));
        rows.push_back(device_row(device, pair));
    }
    return {json, table_text(rows)};
}

Output format_login(const Account &account, const Ports &ports, bool stays) {
    const std::string id = printable(account.client_id);
    const std::string end =
        stays ? "it logs out: kesto-client --id " + id + " logout" : "its last command connection closes";
    g_autofree char *text = g_strdup_printf(
        "logged in as %s with client id %s\ncommand port  %d\nevent port    %d\nthe session stays until %s",
        printable(account.user).c_str(), id.c_str(), ports.command, ports.event, end.c_str());
    return {
        {{"client_id", account.client_id},
         {"user", account.user},
         {"command_port", ports.command},
         {"event_port", ports.event}},
        text
    };
}

Output format_value(const kesto::Value &value) {
    Output output{
        {{"key", value.key}, {"signature", value.signature}},
        ""
    };
    if (value.signature != kesto::signature_of_pairs) {
        output.json["value"] = value.text;
        output.text = printable(value.text);
        return output;
    }
    Json &entries = output.json["entries"] = Json::object();
    for (const kesto::Pair &pair : value.entries) {
        entries[pair.key] = pair.value;
        add_line(output.text, assignment_text(pair.key, pair.value));
    }
    return output;
}

Output format_write(const kesto::WriteResult &result) {
    const Json json = {
        {"key",    result.key   },
        {"value",  result.value },
        {"type",   result.type  },
        {"result", result.result}
    };
    std::string text = assignment_text(result.key, result.value);
    if ((result.type & kesto::write_is_lock) != 0) text += " (a lock)";
    if (result.result != 0) text += " (result " + std::to_string(result.result) + ")";
    return {json, text};
}

Output format_write_all(const kesto::MultiWriteResult &result) {
    Output output{Json::array(), ""};
    for (size_t i = 0; i < result.pairs.size(); ++i) {
        const kesto::Pair &pair = result.pairs[i];
        Json json = {
            {"key",   pair.key  },
            {"value", pair.value}
        };
        std::string line = assignment_text(pair.key, pair.value);
        if (i < result.results.size()) {
            json["result"] = result.results[i];
            line += " (" + printable(result.results[i]) + ")";
        }
        output.json.push_back(json);
        add_line(output.text, line);
    }
    return output;
}

Output format_published(const kesto::Published &published) {
    const Output what = format_what(published);
    return format_timed(what.json, what.text);
}

/* What happened at a device, and when. */
static Output format_at(const Source &source, const Json &what, const std::string &text) {
    Json json;
    json["device"] = {
        {"address", source.address},
        {"model",   source.model  },
        {"serial",  source.serial }
    };
    json["client_id"] = nullptr;  // the device itself
    json.update(what);            // an echo names its client
    return format_timed(json, source_text(source) + ": " + text);
}

Output format_published_by(const Source &source, const kesto::Published &published) {
    const Output what = format_what(published);
    const bool by_client = std::holds_alternative<kesto::Reply>(published);
    return format_at(source, what.json, (by_client ? "" : "device: ") + what.text);
}

Output format_notice(const Source &source, const std::string &event, const std::string &text) {
    return format_at(source,
                     {
                         {"event", event},
                         {"text",  text }
    },
                     printable(text));
}
