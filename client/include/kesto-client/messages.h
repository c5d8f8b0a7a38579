/* messages.h - what clients and devices say to each other, as plain records.
 *
 * Texts are UTF-8. A text with a NUL byte or an invalid byte is not sent: the request ends with Outcome::invalid. */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "api.h"

namespace kesto {

struct Pair {
    std::string key, value;
};

/* What a login asks for. The flags hold for the whole session. */
struct LoginFlags {
    bool monitor = true;              // the session ends when its last connection to the command port closes
    bool discard_my_feedback = true;  // no echo of one's own writes
    bool hide_secure_info = false;    // passwords and the like read as "********"
    bool no_lock = false;             // the device's audio service knows the client as a program on the device itself
};

/* Operations, each with its answer. */

/* Ports. Both texts absent: a log-out, which is answered without a result. */
struct Login {
    std::optional<std::string> user_name, password;
    LoginFlags flags;
    std::optional<std::string> static_discovery;  // refused unless it is the device's own; absent: not compared
};

constexpr std::uint32_t read_this_key_alone = 0x2000;  // bit 13 of Read::flags
constexpr std::uint32_t read_branch = 0;               // every key at or below it

/* Value. */
struct Read {
    std::string key;
    std::uint32_t flags = read_this_key_alone;
};

constexpr std::uint32_t write_is_lock = 0x1000;  // bit 12 of Write::type

/* WriteResult. */
struct Write {
    std::string key;
    std::optional<std::string> value;  // absent: refused
    std::uint32_t type = 0;
};

/* MultiWriteResult. At most 65536 pairs. When one key is not allowed nothing is written. */
struct MultiWrite {
    std::vector<Pair> pairs;
};

constexpr std::uint32_t operation_read = 2, operation_write = 4;  // of Authorize

/* Authorization. Asks what the user may do, and touches nothing. */
struct Authorize {
    std::uint32_t operation = operation_read;
    std::string key;
    bool recursive = false;  // a read of everything at or below the key
};

/* StaticDiscovery. */
struct Discovery {};

/* No result: every reply has the counter. */
struct ChangeCount {};

using Operation = std::variant<std::monostate, Login, Read, Write, MultiWrite, Authorize, Discovery, ChangeCount>;

struct Request {
    std::string client_id;
    std::uint64_t sequence = 0;  // comes back in the reply
    Operation operation;
};

/* The numbers are those of the wire. */
enum class Status {
    unspecified = 0,
    ok = 1,
    refused = 2,
    unsupported = 3,
};

/* The wire's name of it, such as "STATUS_OK"; a number that has none as a number. */
KESTO_CLIENT_API std::string status_name(Status status);

/* TCP ports of the client's own two sockets. */
struct Ports {
    int command = 0, event = 0;

    bool operator==(const Ports &) const = default;
};

constexpr const char *signature_of_text = "s", *signature_of_pairs = "a{ss}";

struct Value {
    std::string key;
    std::string signature;      // signature_of_text, signature_of_pairs, or that of another kind
    std::string text;           // of every kind but pairs; of others than texts for display
    std::vector<Pair> entries;  // of signature_of_pairs
};

struct WriteResult {
    std::string key, value;
    std::uint32_t type = 0;
    std::int32_t result = 0;  // the device's; below 0 when refused or failed
};

constexpr const char *pair_was_written = "OK";

struct MultiWriteResult {
    std::vector<Pair> pairs;
    std::vector<std::string> results;  // for each pair pair_was_written, or why it was not; may be fewer
};

struct Authorization {
    bool allowed = false;
};

/* device_from_static_text (device.h) takes it apart. */
struct StaticDiscovery {
    std::string text;  // empty while the device does not know itself yet
};

struct Reply {
    std::string client_id;  // whose request it answers
    std::uint64_t sequence = 0;
    Status status = Status::unspecified;
    std::uint32_t change_count = 0;  // of the device, when the answer was made
    std::variant<std::monostate, Ports, Value, WriteResult, MultiWriteResult, Authorization, StaticDiscovery> result;
};

/* An alarm value of a channel. */
struct Alarm {
    std::int32_t code = 0;
    std::uint32_t active = 0;
    std::int32_t channel = 0;  // counted from 0
    float value = 0;           // the device says what it measures
};

/* The device changed a value by itself. */
struct Change {
    std::string key, value;
    std::optional<std::string> type;
};

/* Many values may have changed: read again. */
struct SnapshotLoaded {
    std::uint32_t slot = 0;
};
struct SpeakerPresetLoaded {};

/* What a device publishes; a Reply is the echo of another client's write: apply its values only with Status::ok, and
 * those of a multi-write only where its results say so. std::monostate is an event of a kind that this library does not
 * know. */
using Published = std::variant<std::monostate, Alarm, Change, SnapshotLoaded, SpeakerPresetLoaded, Reply>;

}  // namespace kesto
