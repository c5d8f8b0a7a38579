/* connection_table.h - every TCP connection of the service: to which port, from whom, and how much libzmq holds for it.
 *
 * libzmq believes every peer: it takes what comes and keeps what nobody fetches, without a limit that knows of all
 * connections. So what comes in, is read, is answered and goes out is counted here, and a connection that makes the
 * service hold more than a client can have reason to is shut down; when all together hold too much, the one that holds
 * most is. Any thread, where nothing else is said; no call waits for more than another's. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>

#include "net/transport/zmtp.h"

enum class PortKind : uint8_t { none, login, command, event };

/* The largest message that is accepted from a client. */
constexpr int max_message_bytes = 10485760;

/* What a message of one content frame costs while it waits to be read: with the empty frame before it, and the receive
 * buffer that a short one keeps. */
constexpr size_t waiting_overhead_bytes = 8192;
constexpr size_t waiting_bytes(size_t content) { return content + 2 * zmtp_frame_overhead + waiting_overhead_bytes; }

/* Requests that wait, and the one that is coming in. A client sends its next one after the answer; two of the largest
 * leave room to one that does not wait. */
constexpr size_t held_per_connection = 2 * waiting_bytes(max_message_bytes);

/* Answers or events that wait to be sent, and are not fetched: two of the largest that a client can cause. */
constexpr size_t unsent_per_connection = 2 * static_cast<size_t>(max_message_bytes);

/* Both, of all connections together, and what those that are gone have left behind: libzmq keeps a whole request until
 * it is taken. Guests, who need no password, and all that was left behind leave some of it to the sessions. */
constexpr size_t held_by_all = size_t{64} << 20, held_by_guests = size_t{32} << 20;
static_assert(held_per_connection < held_by_guests && unsent_per_connection < held_by_guests);
static_assert(held_by_guests < held_by_all);

/* Subscriptions stay as long as their connection, and libzmq takes some thirty times their length. A client has one
 * empty one. */
constexpr size_t subscriptions_per_connection = size_t{32} << 10, subscriptions_of_all = size_t{1} << 20;
constexpr uint64_t longest_subscription = 4096;

/* Connections that are not a session's own: to the login port, and to a session's port from elsewhere or beyond the
 * first ones. */
constexpr size_t guests_most = 1536;
constexpr size_t own_connections_per_port = 4, guests_per_port = 60;

/* In one turn of the loop: what a session's monitor reports of them must find room in its queues, of 1000 each. */
constexpr size_t accepted_per_turn = 64;
static_assert(2 * (own_connections_per_port + guests_per_port + 2 * accepted_per_turn) < 1000);

/* Before anything listens; `descriptors` is how many the process may have. Once. */
void connection_table_init(size_t descriptors);

/* A port of the service, until it is closed. A session's is opened for the client whose request was taken last: its
 * address is the owner's. */
void connection_table_open_port(int port, PortKind kind);
void connection_table_close_port(int port);

/* A connection has been accepted. False when it is not to be had; the caller closes it. */
bool connection_table_add(int descriptor, int port, in_addr_t address);

/* A descriptor is about to be closed, whatever it is. */
void connection_table_remove(int descriptor);

/* Bytes have come in, and libzmq has not seen them yet. False when it must not: the connection is over. */
bool connection_table_received(int descriptor, const void *bytes, size_t count);

/* Bytes have gone out. */
void connection_table_sent(int descriptor, size_t count);

/* Network thread: it has taken a request of that many bytes, which came to that port on a connection that may be gone
 * by now; or it has answered it. */
void connection_table_taken(int port, int descriptor, size_t bytes);
void connection_table_answered(int descriptor, size_t bytes);

/* Network thread: it has published an event on a port. */
void connection_table_published(int port, size_t bytes);

/* A turn of the loop begins. */
void connection_table_turn();

/* Open connections to a port; and of all ports. */
size_t connection_table_count(int port);
size_t connection_table_count_all();

/* Connections that the port has had since it was opened. */
uint32_t connection_table_count_accepted(int port);

/* Whether a connection to the port is open at both ends: one that its peer has closed is not, even before libzmq has
 * noticed. */
bool connection_table_has_live(int port);

/* Connections that sessions have not made yet and are to find room for: two for each session. */
size_t connection_table_count_missing();

/* What is held for all connections. */
size_t connection_table_held();

/* Shuts down the connections that have sent nothing for a second and have not finished ZeroMQ's greeting. */
void connection_table_drop_silent();
