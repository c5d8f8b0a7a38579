/* zmtp.h - reads along what a ZeroMQ peer sends, as far as it takes to know what libzmq keeps of it: the framing of
 * versions 1 to 3 of its protocol. Neither input nor output, no lock; the bytes may come in any pieces. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

/* What libzmq takes for a frame beside its content. */
constexpr size_t zmtp_frame_overhead = 96;

/* What is acceptable from the peers of a socket, and what it costs. */
struct ZmtpRules {
    uint64_t longest_frame;
    bool has_envelope;       /* every message has an empty frame before its content, as a REQ socket sends it */
    size_t message_overhead; /* of a message that waits to be read, beside its frames */
};

/* Where a peer is in what it says. Zero-filled at the connection's start. */
struct ZmtpReader {
    enum State : uint8_t { greeting, header, content, refused };
    State state;
    uint8_t version;         /* 1 to 3, once the greeting says so */
    uint8_t gathered[16];    /* bytes of the greeting or of the frame's header */
    uint8_t gathered_count;  /* how many of them are there */
    uint8_t command_name[5]; /* its first bytes: the length and the letters of the name */
    uint8_t command_name_count;
    bool more, command; /* of the frame under way */
    bool has_said_who;  /* the first message of versions 1 and 2 is the peer's identity */
    bool has_delimiter; /* the message under way has had its empty frame */
    uint64_t frame_length, frame_left;
    size_t message_bytes; /* what the message under way costs so far */
};

/* What was found in some bytes. */
struct ZmtpFound {
    size_t messages;    /* that are complete now */
    size_t bytes;       /* what those cost */
    size_t other_bytes; /* of commands that are complete now, but for heartbeats */
    bool acceptable;    /* else libzmq must not see these bytes, nor any that follow */
};

ZmtpFound zmtp_read(ZmtpReader &reader, const ZmtpRules &rules, std::span<const uint8_t> bytes);
