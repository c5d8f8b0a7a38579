/* One lock for the whole table: what is done under it takes less than a system call, and it is taken once for each. A
 * connection is shut down under it as well, so that its descriptor cannot have become another's. */
#include "net/transport/connection_table.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <linux/sockios.h>
#include <linux/tcp.h>
#include <mutex>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <utility>

#include <glib.h>

#include "net/transport/limits.h"

static constexpr size_t ports_count = 65536;
static constexpr size_t most_descriptors = 65536;  // no connection gets one beyond
static constexpr int no_descriptor = 0;            // the standard input is never a connection

// After so many bytes of answers and events it is looked who has not fetched them.
static constexpr size_t given_between_looks = size_t{4} << 20;

static constexpr uint8_t tcp_established = 1;  // the kernel's state number; its header names none
static constexpr uint32_t silence_ms = 1000;
static constexpr uint64_t shortest_greeting_bytes = 12;  // of version 2 of the protocol
static constexpr uint64_t greeting_bytes = 64;           // of version 3

static constexpr ZmtpRules request_rules = {
    .longest_frame = max_message_bytes, .has_envelope = true, .message_overhead = waiting_overhead_bytes};
static constexpr ZmtpRules subscription_rules = {
    .longest_frame = longest_subscription, .has_envelope = false, .message_overhead = 0};

struct Connection {
    int port = 0;              // 0: there is no connection
    int next = no_descriptor;  // of the same port
    in_addr_t address = INADDR_ANY;
    bool own = false;   // a session's, from where the client is that it was opened for
    bool over = false;  // has been shut down: counts nothing from now on
    ZmtpReader reader = {};
    size_t arriving = 0;                       // completed by bytes that libzmq has not seen yet
    size_t waiting_messages = 0, waiting = 0;  // complete and not taken
    size_t subscriptions = 0;
    // Answers, and events up to `published_seen`, since all had been sent; and what the connection had sent by then.
    uint64_t given = 0, sent_before = 0;
    uint64_t published_seen = 0;
    size_t answers = 0;  // among them
    size_t unsent = 0;   // of them, at the last look
};

struct Port {
    PortKind kind;
    in_addr_t owner;
    int first;  // connection
    size_t connections, own_connections;
    size_t left_messages, left;  // complete, not taken, and their connections are gone or over
    uint32_t accepted;           // since it was opened
    // Bytes, up to now, and before the last turn in which there were any.
    uint64_t published, published_before;
    uint32_t published_turn;
    uint32_t turn;
    size_t accepted_in_turn[2];  // guests', own
};

static std::mutex lock;
static Port ports[ports_count];
static Connection *connections = nullptr;  // by descriptor; never released, as descriptors are closed until the end
static size_t capacity = 0;

// By descriptor, and without the lock: most of what is closed, sent and received is no connection's, and a close must
// come back even in a thread that has crashed under the lock.
static std::atomic<bool> counted[most_descriptors];
static std::atomic<uint64_t> sent[most_descriptors];

static int highest = no_descriptor;
static size_t all = 0, guests = 0, session_ports = 0, own_ports = 0;  // own_ports: session ports with a connection
static size_t held = 0, held_for_guests = 0, subscribed = 0;          // what was left behind is among the first two
static in_addr_t last_taken_from = INADDR_ANY;
static uint32_t turn = 0;
static size_t given_since_look = 0;
static int last_answered = no_descriptor;

using Locked = std::lock_guard<std::mutex>;

void connection_table_init(size_t descriptors) {
    const Locked locked(lock);
    capacity = std::min(descriptors, most_descriptors);
    connections = g_new0(Connection, capacity);
}

static bool is_counted(int descriptor) {
    return descriptor >= 0 && static_cast<size_t>(descriptor) < most_descriptors && counted[descriptor];
}

static Connection *find(int descriptor) {
    if (descriptor < 0 || static_cast<size_t>(descriptor) >= capacity) return nullptr;
    Connection *connection = &connections[descriptor];
    return connection->port != 0 ? connection : nullptr;
}

static Port &port_of(const Connection &connection) { return ports[connection.port]; }

static bool is_session_port(const Port &port) { return port.kind == PortKind::command || port.kind == PortKind::event; }

static size_t held_for(const Connection &connection) {
    return connection.reader.message_bytes + connection.arriving + connection.waiting + connection.unsent;
}

// Changes what is counted for a connection, and the sums with it.
template <typename Change>
static void recount(Connection &connection, Change change) {
    held -= held_for(connection);
    if (!connection.own) held_for_guests -= held_for(connection);
    subscribed -= connection.subscriptions;
    change(connection);
    held += held_for(connection);
    if (!connection.own) held_for_guests += held_for(connection);
    subscribed += connection.subscriptions;
}

static void count_left(Port &port, size_t messages, size_t bytes) {
    port.left_messages += messages;
    port.left += bytes;
    held += bytes;
    held_for_guests += bytes;
}

static void take_left(Port &port, size_t bytes) {
    if (port.left_messages == 0) return;
    port.left_messages -= 1;
    const size_t taken = port.left_messages == 0 ? port.left : std::min(port.left, waiting_bytes(bytes));
    port.left -= taken;
    held -= taken;
    held_for_guests -= taken;
}

static void count_nothing(Connection &connection) {
    recount(connection, [](Connection &over) {
        over.reader.message_bytes = over.arriving = over.waiting = over.unsent = over.subscriptions = 0;
        over.waiting_messages = 0;
    });
}

static void leave(Connection &connection) {
    count_left(port_of(connection), connection.waiting_messages, connection.waiting);
    count_nothing(connection);
}

static void end(int descriptor) {
    Connection &connection = connections[descriptor];
    connection.over = true;
    leave(connection);
    shutdown(descriptor, SHUT_RDWR);  // libzmq then closes it
}

// A port that is just being closed may still have got a connection; it goes on as a guest's.
void connection_table_open_port(int number, PortKind kind) {
    const Locked locked(lock);
    Port &port = ports[number];
    if (is_session_port(port)) --session_ports;
    port.kind = kind;
    port.owner = last_taken_from;
    if (is_session_port(port)) ++session_ports;
}

void connection_table_close_port(int number) {
    const Locked locked(lock);
    Port &port = ports[number];
    if (is_session_port(port)) --session_ports;
    if (port.own_connections > 0) --own_ports;
    held -= port.left;
    held_for_guests -= port.left;
    for (int descriptor = port.first; descriptor != no_descriptor; descriptor = connections[descriptor].next) {
        Connection &connection = connections[descriptor];
        if (!connection.own) --guests;
        --all;
        count_nothing(connection);
        connection.port = 0;
        counted[descriptor] = false;
    }
    port = {};
}

static size_t missing() { return session_ports - own_ports; }

// Guests take no place of a session's own connections, neither at its port nor of its descriptors.
static bool has_room_for_guest(const Port &port, int descriptor) {
    const size_t guests_here = port.connections - port.own_connections;
    if (is_session_port(port) && guests_here >= guests_per_port) return false;
    return guests < guests_most && limits_leave(descriptor, missing());
}

static bool has_room(const Port &port, bool own, int descriptor) {
    if (is_session_port(port) && port.accepted_in_turn[own] >= accepted_per_turn) return false;
    return own ? limits_leave(descriptor, 0) : has_room_for_guest(port, descriptor);
}

bool connection_table_add(int descriptor, int number, in_addr_t address) {
    const Locked locked(lock);
    if (static_cast<size_t>(descriptor) >= capacity) return false;
    Port &port = ports[number];
    if (port.turn != turn) port.accepted_in_turn[false] = port.accepted_in_turn[true] = 0;
    port.turn = turn;
    const bool own = is_session_port(port) && port.own_connections < own_connections_per_port &&
                     (address == port.owner || port.owner == INADDR_ANY);
    if (!has_room(port, own, descriptor)) return false;

    sent[descriptor] = 0;
    connections[descriptor] = {
        .port = number, .next = port.first, .address = address, .own = own, .published_seen = port.published};
    port.first = descriptor;
    ++port.connections;
    ++port.accepted;
    ++port.accepted_in_turn[own];
    ++all;
    if (!own) ++guests;
    else if (port.own_connections++ == 0) ++own_ports;
    highest = std::max(highest, descriptor);
    counted[descriptor] = true;
    return true;
}

static void unlink_from(Port &port, int descriptor) {
    int *link = &port.first;
    while (*link != descriptor) link = &connections[*link].next;
    *link = connections[descriptor].next;
}

void connection_table_remove(int descriptor) {
    if (!is_counted(descriptor)) return;
    const Locked locked(lock);
    Connection *connection = find(descriptor);
    if (connection == nullptr) return;
    Port &port = port_of(*connection);
    leave(*connection);
    unlink_from(port, descriptor);
    --port.connections;
    --all;
    if (!connection->own) --guests;
    else if (--port.own_connections == 0) --own_ports;
    connection->port = 0;
    counted[descriptor] = false;
}

// Guests go before a session's own connections, and of either the one with the most.
template <typename Weight>
static int heaviest(Weight weight) {
    int found = no_descriptor;
    std::pair<bool, size_t> most = {false, 0};
    for (int descriptor = 1; descriptor <= highest; ++descriptor) {
        const Connection &connection = connections[descriptor];
        if (connection.port == 0 || weight(connection) == 0) continue;
        const std::pair<bool, size_t> place = {!connection.own, weight(connection)};
        if (found != no_descriptor && place <= most) continue;
        found = descriptor;
        most = place;
    }
    return found;
}

static size_t subscriptions_of(const Connection &connection) { return connection.subscriptions; }

// The one answer that is just being sent may be as large as it is.
static size_t answer_on_its_way(bool only_to_a_guest) {
    if (last_answered == no_descriptor) return 0;
    const Connection &connection = connections[last_answered];
    if (connection.port == 0 || connection.answers != 1 || (only_to_a_guest && connection.own)) return 0;
    return connection.unsent;
}

static size_t held_for_guest(const Connection &connection) { return connection.own ? 0 : held_for(connection); }

// What was left behind cannot be had back, so that there may be nobody left to end.
template <typename IsOver, typename Weight>
static void end_heaviest_while(IsOver is_over, Weight weight) {
    int descriptor = no_descriptor;
    while (is_over() && (descriptor = heaviest(weight)) != no_descriptor) end(descriptor);
}

static void keep_within_budget() {
    end_heaviest_while([] { return held_for_guests - answer_on_its_way(true) > held_by_guests; }, held_for_guest);
    end_heaviest_while([] { return held - answer_on_its_way(false) > held_by_all; }, held_for);
    end_heaviest_while([] { return subscribed > subscriptions_of_all; }, subscriptions_of);
}

static bool holds_too_much(const Connection &connection) {
    return connection.reader.message_bytes + connection.arriving + connection.waiting > held_per_connection ||
           connection.subscriptions > subscriptions_per_connection;
}

bool connection_table_received(int descriptor, const void *bytes, size_t count) {
    if (!is_counted(descriptor)) return true;
    const Locked locked(lock);
    Connection *connection = find(descriptor);
    if (connection == nullptr) return true;
    if (connection->over) return false;
    const bool subscribes = port_of(*connection).kind == PortKind::event;
    ZmtpFound found = {};
    recount(*connection, [&](Connection &receiving) {
        found = zmtp_read(receiving.reader, subscribes ? subscription_rules : request_rules,
                          {static_cast<const uint8_t *>(bytes), count});
        if (subscribes) receiving.subscriptions += found.bytes + found.other_bytes;
        else receiving.arriving = found.bytes;
    });
    if (!found.acceptable || holds_too_much(*connection)) end(descriptor);
    else keep_within_budget();
    if (connection->over) return false;
    recount(*connection, [&](Connection &received) {
        received.waiting_messages += subscribes ? 0 : found.messages;
        received.waiting += std::exchange(received.arriving, 0);
    });
    return true;
}

void connection_table_sent(int descriptor, size_t count) {
    if (is_counted(descriptor)) sent[descriptor].fetch_add(count, std::memory_order_relaxed);
}

void connection_table_taken(int port, int descriptor, size_t bytes) {
    const Locked locked(lock);
    Connection *connection = find(descriptor);
    const bool is_there = connection != nullptr && connection->port == port;
    if (is_there) last_taken_from = connection->address;
    if (!is_there || connection->waiting_messages == 0) return take_left(ports[port], bytes);
    recount(*connection, [&](Connection &taken) {
        taken.waiting_messages -= 1;
        taken.waiting -= taken.waiting_messages == 0 ? taken.waiting : std::min(taken.waiting, waiting_bytes(bytes));
    });
}

static bool has_free_way_out(int descriptor) {
    int queued = 0;
    return ioctl(descriptor, SIOCOUTQ, &queued) != 0 || queued == 0;
}

static void forget_given(Connection &connection, uint64_t sent_now, uint64_t but) {
    connection.given = but;
    connection.sent_before = sent_now;
    connection.answers = 0;
}

static void take_over_published(Connection &connection) {
    connection.given += port_of(connection).published - connection.published_seen;
    connection.published_seen = port_of(connection).published;
}

// In this turn or the one before: libzmq may not have come to it yet.
static uint64_t published_just_now(const Port &port) {
    return turn - port.published_turn <= 1 ? port.published - port.published_before : 0;
}

// What a connection has not subscribed to, or was dropped since it is slow, has been given to it in name only: when its
// way out is free, nothing of what was published some time ago is left.
static void look_at(int descriptor) {
    Connection &connection = connections[descriptor];
    const bool listens = port_of(connection).kind == PortKind::event;
    const uint64_t sent_now = sent[descriptor];
    if (listens) take_over_published(connection);
    if (sent_now - connection.sent_before >= connection.given) {
        forget_given(connection, sent_now, 0);
    } else if (listens && has_free_way_out(descriptor)) {
        forget_given(connection, sent_now, published_just_now(port_of(connection)));
    }
    recount(connection, [&](Connection &looked_at) {
        looked_at.unsent =
            static_cast<size_t>(looked_at.given - std::min(looked_at.given, sent_now - looked_at.sent_before));
    });
    if (connection.unsent > unsent_per_connection && (listens || connection.answers > 1)) end(descriptor);
}

static void note_given(size_t bytes) {
    given_since_look += bytes;
    if (given_since_look < given_between_looks) return;
    given_since_look = 0;
    for (int descriptor = 1; descriptor <= highest; ++descriptor) {
        if (find(descriptor) != nullptr && !connections[descriptor].over) look_at(descriptor);
    }
    keep_within_budget();
}

void connection_table_answered(int descriptor, size_t bytes) {
    const Locked locked(lock);
    Connection *connection = find(descriptor);
    if (connection == nullptr || connection->over) return;
    const uint64_t sent_now = sent[descriptor];
    if (sent_now - connection->sent_before >= connection->given) forget_given(*connection, sent_now, 0);
    connection->given += bytes;
    connection->answers += 1;
    last_answered = descriptor;
    note_given(bytes);
}

void connection_table_published(int number, size_t bytes) {
    const Locked locked(lock);
    Port &port = ports[number];
    if (port.published_turn != turn) port.published_before = port.published;
    port.published_turn = turn;
    port.published += bytes;
    note_given(bytes);
}

void connection_table_turn() {
    const Locked locked(lock);
    ++turn;
}

size_t connection_table_count(int port) {
    const Locked locked(lock);
    return ports[port].connections;
}

static bool is_live(int descriptor) {
    tcp_info info = {};
    socklen_t size = sizeof(info);
    return getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 && info.tcpi_state == tcp_established;
}

bool connection_table_has_live(int number) {
    const Locked locked(lock);
    int descriptor = ports[number].first;
    while (descriptor != no_descriptor && !is_live(descriptor)) descriptor = connections[descriptor].next;
    return descriptor != no_descriptor;
}

uint32_t connection_table_count_accepted(int port) {
    const Locked locked(lock);
    return ports[port].accepted;
}

size_t connection_table_count_all() {
    const Locked locked(lock);
    return all;
}

size_t connection_table_count_missing() {
    const Locked locked(lock);
    return missing();
}

size_t connection_table_held() {
    const Locked locked(lock);
    return held;
}

// A peer of version 3 has had all of our greeting, and nothing more before we have all of its own. One of version 2
// that has been quiet may look the same; it is closed with the others and comes back.
static bool waits_for_greeting(const tcp_info &info) {
    return info.tcpi_bytes_received < shortest_greeting_bytes ||
           (info.tcpi_bytes_received < greeting_bytes && info.tcpi_bytes_sent == greeting_bytes);
}

static bool is_silent(int descriptor) {
    tcp_info info = {};
    socklen_t size = sizeof(info);
    if (getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return false;
    const bool tells_bytes = size >= offsetof(tcp_info, tcpi_bytes_sent) + sizeof(info.tcpi_bytes_sent);
    return tells_bytes && info.tcpi_state == tcp_established && info.tcpi_last_data_recv >= silence_ms &&
           waits_for_greeting(info);
}

void connection_table_drop_silent() {
    const Locked locked(lock);
    for (int descriptor = 1; descriptor <= highest; ++descriptor) {
        if (find(descriptor) != nullptr && is_silent(descriptor)) end(descriptor);
    }
}
