#include "net/transport/zmtp.h"

#include <algorithm>
#include <cstring>

static constexpr uint8_t signature_first = 0xFF, signature_bit = 0x01;  // what a versioned greeting has at its places
static constexpr size_t signature_length = 10, revision_place = 10;
static constexpr uint8_t greeting_length_old = 12, greeting_length_new = 64;  // of versions 1 and 2, of version 3
static constexpr uint8_t revision_1 = 0, revision_2 = 1;

static constexpr uint8_t flag_more = 0x01, flag_long = 0x02, flag_command = 0x04;
static constexpr uint8_t long_length_old = 0xFF;  // in version 1: eight bytes of length follow
static constexpr uint64_t longest_command = 8192;
static constexpr uint8_t heartbeats[][5] = {
    {4, 'P', 'I', 'N', 'G'},
    {4, 'P', 'O', 'N', 'G'},
};
static constexpr uint64_t longest_heartbeat = 64;

static uint64_t big_endian(const uint8_t *bytes, size_t count) {
    uint64_t value = 0;
    for (size_t i = 0; i < count; ++i) value = value << 8 | bytes[i];
    return value;
}

// How many bytes the header has, as far as those that are there tell.
static size_t header_length(const ZmtpReader &reader) {
    if (reader.gathered_count == 0) return 1;
    if (reader.version == 1) return reader.gathered[0] == long_length_old ? 10 : 2;
    return (reader.gathered[0] & flag_long) != 0 ? 9 : 2;
}

// In version 1 the length counts the flags, which stand behind it.
static void take_header_old(ZmtpReader &reader) {
    const bool is_long = reader.gathered[0] == long_length_old;
    const uint64_t length = is_long ? big_endian(reader.gathered + 1, 8) : reader.gathered[0];
    reader.more = (reader.gathered[is_long ? 9 : 1] & flag_more) != 0;
    reader.command = false;
    reader.frame_length = length - 1;
    if (length == 0) reader.state = ZmtpReader::refused;
}

static void take_header_new(ZmtpReader &reader) {
    const uint8_t flags = reader.gathered[0];
    reader.more = (flags & flag_more) != 0;
    reader.command = reader.version == 3 && (flags & flag_command) != 0;
    reader.frame_length = (flags & flag_long) != 0 ? big_endian(reader.gathered + 1, 8) : reader.gathered[1];
}

static bool is_identity(const ZmtpReader &reader) { return reader.version < 3 && !reader.has_said_who; }

static bool frame_is_acceptable(const ZmtpReader &reader, const ZmtpRules &rules) {
    if (reader.command) return reader.frame_length <= longest_command;
    if (reader.frame_length > rules.longest_frame) return false;
    const bool ends_message = !reader.more;
    return !rules.has_envelope || !ends_message || reader.has_delimiter || is_identity(reader);
}

static void begin_frame(ZmtpReader &reader, const ZmtpRules &rules) {
    reader.state = ZmtpReader::content;
    if (reader.version == 1) take_header_old(reader);
    else take_header_new(reader);
    if (reader.state == ZmtpReader::refused || !frame_is_acceptable(reader, rules)) {
        reader.state = ZmtpReader::refused;
        return;
    }
    reader.gathered_count = 0;
    reader.command_name_count = 0;
    reader.frame_left = reader.frame_length;
    if (reader.command) return;
    reader.message_bytes += zmtp_frame_overhead;
    if (reader.frame_length == 0 && reader.more) reader.has_delimiter = true;
}

static bool is_heartbeat(const ZmtpReader &reader) {
    if (reader.frame_length > longest_heartbeat || reader.command_name_count < sizeof(reader.command_name))
        return false;
    return std::ranges::any_of(heartbeats, [&](const auto &name) {
        return memcmp(name, reader.command_name, sizeof(reader.command_name)) == 0;
    });
}

static void end_frame(ZmtpReader &reader, const ZmtpRules &rules, ZmtpFound &found) {
    reader.state = ZmtpReader::header;
    if (reader.command) {
        if (!is_heartbeat(reader)) found.other_bytes += reader.frame_length;
        return;
    }
    if (reader.more) return;
    if (is_identity(reader)) {
        reader.has_said_who = true;
    } else {
        found.messages += 1;
        found.bytes += reader.message_bytes + rules.message_overhead;
    }
    reader.message_bytes = 0;
    reader.has_delimiter = false;
}

// Takes what the header or the greeting lacks, up to `wanted` bytes in all.
static void gather(ZmtpReader &reader, size_t wanted, std::span<const uint8_t> &bytes) {
    while (reader.gathered_count < wanted && !bytes.empty()) {
        if (reader.gathered_count < sizeof(reader.gathered)) reader.gathered[reader.gathered_count] = bytes.front();
        ++reader.gathered_count;
        bytes = bytes.subspan(1);
    }
}

// A peer of the first version begins with its identity's frame; its header looks like the start of a signature.
static bool is_unversioned(const ZmtpReader &reader) {
    if (reader.gathered[0] != signature_first) return true;
    return reader.gathered_count >= signature_length && (reader.gathered[signature_length - 1] & signature_bit) == 0;
}

static void end_greeting(ZmtpReader &reader, uint8_t version) {
    reader.version = version;
    reader.state = ZmtpReader::header;
    reader.gathered_count = 0;
}

static void begin_unversioned(ZmtpReader &reader, const ZmtpRules &rules) {
    reader.version = 1;
    reader.state = ZmtpReader::header;
    if (reader.gathered_count == header_length(reader)) begin_frame(reader, rules);
}

static void read_greeting(ZmtpReader &reader, const ZmtpRules &rules, std::span<const uint8_t> &bytes) {
    gather(reader, 1, bytes);
    if (!is_unversioned(reader)) gather(reader, signature_length, bytes);
    if (is_unversioned(reader)) return begin_unversioned(reader, rules);
    gather(reader, revision_place + 1, bytes);
    if (reader.gathered_count <= revision_place) return;
    const uint8_t revision = reader.gathered[revision_place];
    const bool is_old = revision == revision_1 || revision == revision_2;
    const size_t length = is_old ? greeting_length_old : greeting_length_new;
    gather(reader, length, bytes);
    if (reader.gathered_count < length) return;
    end_greeting(reader, is_old ? static_cast<uint8_t>(revision + 1) : 3);
}

static void read_header(ZmtpReader &reader, const ZmtpRules &rules, std::span<const uint8_t> &bytes) {
    gather(reader, 1, bytes);
    gather(reader, header_length(reader), bytes);
    if (reader.gathered_count == header_length(reader)) begin_frame(reader, rules);
}

static void note_command_name(ZmtpReader &reader, std::span<const uint8_t> bytes) {
    for (const uint8_t byte : bytes) {
        if (reader.command_name_count == sizeof(reader.command_name)) return;
        reader.command_name[reader.command_name_count++] = byte;
    }
}

static void read_content(ZmtpReader &reader, const ZmtpRules &rules, std::span<const uint8_t> &bytes,
                         ZmtpFound &found) {
    const auto piece = bytes.first(static_cast<size_t>(std::min<uint64_t>(reader.frame_left, bytes.size())));
    bytes = bytes.subspan(piece.size());
    reader.frame_left -= piece.size();
    if (reader.command) note_command_name(reader, piece);
    else reader.message_bytes += piece.size();
    if (reader.frame_left == 0) end_frame(reader, rules, found);
}

ZmtpFound zmtp_read(ZmtpReader &reader, const ZmtpRules &rules, std::span<const uint8_t> bytes) {
    ZmtpFound found = {};
    // An empty frame ends without a byte of content.
    while (!bytes.empty() || (reader.state == ZmtpReader::content && reader.frame_left == 0)) {
        switch (reader.state) {
            case ZmtpReader::greeting: read_greeting(reader, rules, bytes); break;
            case ZmtpReader::header: read_header(reader, rules, bytes); break;
            case ZmtpReader::content: read_content(reader, rules, bytes, found); break;
            case ZmtpReader::refused: return found;
        }
    }
    found.acceptable = reader.state != ZmtpReader::refused;
    return found;
}
