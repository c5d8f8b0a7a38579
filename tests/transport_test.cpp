/* What the service counts of its connections: a ZeroMQ peer's bytes, and a connection from its accept to its close. */
#include <chrono>
#include <fstream>
#include <netinet/in.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <tuple>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

#include "harness/port.h"
#include "harness/texts.h"
#include "net/records/server.h"
#include "net/start/reactor.h"
#include "net/transport/connection_table.h"
#include "net/transport/endpoint.h"
#include "net/transport/limits.h"
#include "net/transport/replaced_calls.h"
#include "net/transport/zmtp.h"

static constexpr ZmtpRules rules = {.longest_frame = 100, .has_envelope = true, .message_overhead = 1000};
static constexpr size_t request_overhead = 2 * zmtp_frame_overhead + rules.message_overhead;

static const std::string signature = "\xff" + std::string(8, '\0') + "\x7f";
static const std::string greeting_1 = signature + std::string("\0\5", 2), greeting_2 = signature + "\1\3";
static const std::string greeting_3 = signature + std::string("\3\0NULL", 6) + std::string(48, '\0');
static const std::string identity_old("\1\0", 2), identity(2, '\0');  // an empty one
static const std::string delimiter("\1\0", 2), hello("\0\5hello", 7);
static const std::string ready = "\4\6\5READY", ping = std::string("\4\7\4PING\0\0", 9);

// A last frame with that much content, in the short form.
static std::string frame_of(size_t size) { return '\0' + (static_cast<char>(size) + std::string(size, 'x')); }

static const std::string endless_frame("\2\0\0\0\1\0\0\0\0", 9), empty_old("\0\0", 2);
static const std::string long_command("\6\0\0\0\0\0\0\x20\1", 9);  // by one
static const std::string part_of_1_mib = std::string("\3\0\0\0\0\0\x10\0\0", 9) + std::string(1 << 20, 'x');
static const std::string request = delimiter + hello, request_old("\1\1\6\0hello", 9);
static const std::string longest = delimiter + frame_of(100), too_long = delimiter + frame_of(101);

struct PeerCase {
    const char *what;
    uint8_t version;
    Texts pieces;  // of what it sends
    bool acceptable;
    size_t messages, content, commands;
};

static const PeerCase peers[] = {
    {"version 1",                1, {greeting_1},                    true,  0, 0,   0},
    {"REQ of version 1",         1, {identity_old, request_old},     true,  1, 5,   0},
    {"REQ of version 2",         2, {greeting_2, identity, request}, true,  1, 5,   0},
    {"REQ of version 3",         3, {greeting_3, ready, request},    true,  1, 5,   6},
    {"two messages",             3, {greeting_3, request, request},  true,  2, 10,  0},
    {"no envelope",              3, {greeting_3, hello},             false, 0, 0,   0},
    {"second has no envelope",   3, {greeting_3, request, hello},    false, 1, 5,   0},
    {"no envelope in version 2", 2, {greeting_2, identity, hello},   false, 0, 0,   0},
    {"as long as allowed",       3, {greeting_3, longest},           true,  1, 100, 0},
    {"too long by one",          3, {greeting_3, too_long},          false, 0, 0,   0},
    {"too long by far",          3, {greeting_3, endless_frame},     false, 0, 0,   0},
    {"version 1 without flags",  1, {identity_old, empty_old},       false, 0, 0,   0},
    {"command too long",         3, {greeting_3, long_command},      false, 0, 0,   0},
    {"PING",                     3, {greeting_3, ping, ping},        true,  0, 0,   0},
    {"PING and another command", 3, {greeting_3, ping, ready},       true,  0, 0,   6},
};

static void expect_found(const PeerCase &row, const ZmtpReader &reader, const ZmtpFound &found) {
    EXPECT_EQ(reader.version, row.version);
    EXPECT_EQ(found.acceptable, row.acceptable);
    EXPECT_EQ(found.messages, row.messages);
    EXPECT_EQ(found.bytes, row.messages * request_overhead + row.content);
    EXPECT_EQ(found.other_bytes, row.commands);
}

TEST(Zmtp, CountsTheSameInWhateverPiecesTheBytesCome) {
    for (const PeerCase &row : peers) {
        SCOPED_TRACE(row.what);
        std::string sent;
        for (const std::string &piece : row.pieces) sent += piece;
        const std::span bytes(reinterpret_cast<const uint8_t *>(sent.data()), sent.size());
        ZmtpReader whole = {}, piecewise = {};
        expect_found(row, whole, zmtp_read(whole, rules, bytes));
        ZmtpFound sum = {};
        for (size_t i = 0; i < bytes.size(); i++) {
            const ZmtpFound found = zmtp_read(piecewise, rules, bytes.subspan(i, 1));
            sum.messages += found.messages;
            sum.bytes += found.bytes;
            sum.other_bytes += found.other_bytes;
            sum.acceptable = found.acceptable;
        }
        expect_found(row, piecewise, sum);
    }
}

static constexpr int far_descriptor = 2000, descriptors = 4096;  // one that nothing else has
[[maybe_unused]] static const bool table_ready = (limits_raise_descriptors(), replaced_calls_init(descriptors), true);

// Whether it comes to that; the time is what counts as never.
static bool becomes(size_t count, int port) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(40);
    while (connection_table_count(port) != count) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

TEST(ReplacedCalls, AreTheOnesThatZeroMqMakes) {
    constexpr int port = 60000;
    zsock_t *service = zsock_new(ZMQ_REP), *other = zsock_new(ZMQ_REP);
    ASSERT_EQ(endpoint_bind(service, "127.0.0.1", port, PortKind::command), port);
    ASSERT_EQ(endpoint_bind(other, "127.0.0.1", port, PortKind::login), -1);
    zsock_destroy(&other);
    EXPECT_EQ(connection_table_count_missing(), 1u) << "the port is still a session's";
    EXPECT_EQ(connection_table_count(port), 0u);
    zsock_t *client = zsock_new_req(">tcp://127.0.0.1:60000");
    EXPECT_TRUE(becomes(1, port));
    zstr_send(client, "question");
    zmq_pollitem_t item = {.socket = zsock_resolve(service), .fd = 0, .events = ZMQ_POLLIN, .revents = 0};
    zmq_poll(&item, 1, -1);
    EXPECT_EQ(connection_table_held(), waiting_bytes(strlen("question")));
    zsock_destroy(&client);
    EXPECT_TRUE(becomes(0, port));
    EXPECT_EQ(connection_table_held(), waiting_bytes(strlen("question"))) << "libzmq keeps it";
    endpoint_destroy(&service, 0);
    EXPECT_EQ(connection_table_held(), 0u);
    EXPECT_EQ(connection_table_count_missing(), 0u) << "a port that is closed waits for nobody";
}

/* A connection to a port that the table knows. */
struct AcceptedConnection {
    int listener = socket(AF_INET, SOCK_STREAM, 0), peer = socket(AF_INET, SOCK_STREAM, 0), accepted = -1, port = 0;

    explicit AcceptedConnection(PortKind kind) {
        sockaddr_in address = {
            .sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
        auto *const generic = reinterpret_cast<sockaddr *>(&address);
        socklen_t size = sizeof(address);
        EXPECT_EQ(bind(listener, generic, size), 0);
        EXPECT_EQ(getsockname(listener, generic, &size), 0);
        EXPECT_EQ(listen(listener, 1), 0);
        port = ntohs(address.sin_port);
        connection_table_open_port(port, kind);
        EXPECT_FALSE(connection_table_has_live(port));
        EXPECT_EQ(connect(peer, generic, size), 0);
        accepted = accept(listener, nullptr, nullptr);
    }
    ~AcceptedConnection() {
        for (const int descriptor : {listener, peer, accepted}) close(descriptor);
        connection_table_close_port(port);
    }
    bool takes(const std::string &bytes) const {
        return connection_table_received(accepted, bytes.data(), bytes.size());
    }
    bool is_up() const { return takes(""); }
};

TEST(ReplacedCalls, ForgetAConnectionBeforeItsDescriptorCanBeAnothers) {
    std::jthread closing;  // until the peer has gone
    const AcceptedConnection connection(PortKind::login);
    const linger until_all_is_sent = {.l_onoff = 1, .l_linger = 3600};
    setsockopt(connection.accepted, SOL_SOCKET, SO_LINGER, &until_all_is_sent, sizeof until_all_is_sent);
    const std::string more_than_fits(size_t{16} << 20, 'x');
    send(connection.accepted, more_than_fits.data(), more_than_fits.size(), MSG_DONTWAIT);
    closing = std::jthread([&] { close(connection.accepted); });
    EXPECT_TRUE(becomes(0, connection.port)) << "it is still open then";
}

TEST(ConnectionTable, BoundsWhatOnePeerPilesUp) {
    const std::string topic(200, 't'), as_message = std::string("\0\xc9\1", 3) + topic,
                                       as_command = "\4\xd2\11SUBSCRIBE" + topic;
    const std::tuple<PortKind, std::string, size_t> endless[] = {
        {PortKind::event,   as_message,    subscriptions_per_connection},
        {PortKind::event,   as_command,    subscriptions_per_connection},
        {PortKind::command, part_of_1_mib, held_per_connection         },
    };
    for (const auto &[kind, piece, most] : endless) {
        const AcceptedConnection connection(kind);
        EXPECT_TRUE(connection.takes(greeting_3));
        size_t taken = 0;
        while (taken < 2 * most && connection.takes(piece)) taken += piece.size();
        EXPECT_GT(taken, most / 2);
        EXPECT_LT(taken, most + most / 16);
    }
}

TEST(ConnectionTable, CutsOffOnlyWhomItMust) {
    const AcceptedConnection client(PortKind::command), listener(PortKind::event), guest(PortKind::login),
        others[] = {AcceptedConnection(PortKind::command), AcceptedConnection(PortKind::command)};
    connection_table_answered(client.accepted, 2 * held_by_all);
    EXPECT_TRUE(client.is_up()) << "it was sent one large answer";
    for (int i = 0; i < 5; i++, connection_table_turn(), connection_table_turn())
        connection_table_published(listener.port, unsent_per_connection / 4);
    EXPECT_TRUE(listener.is_up()) << "it has subscribed to nothing";
    for (int i = 0; i < 18; i++)
        for (const auto *one : {&client, &others[0], &others[1], &guest})
            one->takes(i == 0 ? greeting_3 : part_of_1_mib);
    EXPECT_FALSE(guest.is_up());
    for (const auto *one : {&client, &others[0], &others[1]}) EXPECT_TRUE(one->is_up()) << "a guest holds no more";
}

TEST(ConnectionTable, CountsWhatThoseHaveLeftWhoAreGone) {
    constexpr size_t content = size_t{9} << 20;
    const std::string large = std::string("\1\0\2\0\0\0\0\0\x90\0\0", 11) + std::string(content, 'r');
    const AcceptedConnection guest(PortKind::login), client(PortKind::command);
    const auto sends_and_leaves = [&] {
        connection_table_add(far_descriptor, guest.port, INADDR_ANY);
        const bool taken = connection_table_received(far_descriptor, greeting_3.data(), greeting_3.size()) &&
                           connection_table_received(far_descriptor, large.data(), large.size());
        connection_table_remove(far_descriptor);
        return taken;
    };
    for (size_t i = 0; i < held_by_guests / content; i++) EXPECT_TRUE(sends_and_leaves());
    EXPECT_FALSE(sends_and_leaves());
    EXPECT_TRUE(client.takes(greeting_3) && client.takes(large)) << "the rest is a session's";
    connection_table_taken(guest.port, far_descriptor, content);
    EXPECT_TRUE(sends_and_leaves());
}

// Takes the place of CZMQ's: here the test is the loop.
static zloop_timer_fn *on_tick;
int zloop_timer(zloop_t *, size_t, size_t, zloop_timer_fn handler, void *) { return on_tick = handler, 0; }

static void tick() {
    static KestoProcess process = {};
    static AccessServer server = {};
    server.owner = &process;
    if (on_tick == nullptr) reactor_start_timer(&server);
    on_tick(nullptr, 0, &server);
}

TEST(ConnectionTable, HasSoManyPlacesForGuestsAndGivesThemAnew) {
    constexpr int port = 60001;
    for (const auto &[kind, most] : {std::pair(PortKind::login, guests_most),
                                     std::pair(PortKind::event, own_connections_per_port + guests_per_port)}) {
        connection_table_open_port(port, kind);
        for (int times = 0; times < 2; times++, tick()) {
            int next = far_descriptor;
            while (connection_table_add(next, port, INADDR_ANY)) next++;
            EXPECT_EQ(static_cast<size_t>(next - far_descriptor), most);
            while (next > far_descriptor) connection_table_remove(--next);
        }
        connection_table_close_port(port);
    }
}

TEST(ConnectionTable, TakesSoManyInOneTurnOfACrowdThatComesAndGoes) {
    constexpr int port = 60001;
    connection_table_open_port(port, PortKind::command);
    for (int times = 0; times < 2; times++, tick()) {
        size_t taken = 0;
        for (; taken < 1000 && connection_table_add(far_descriptor, port, INADDR_ANY); taken++)
            connection_table_remove(far_descriptor);
        EXPECT_EQ(taken, accepted_per_turn);
    }
    connection_table_close_port(port);
}

TEST(ConnectionTable, DropsWhoIsSilentWhenAnotherWasRefused) {
    const AcceptedConnection quiet(PortKind::command), silent(PortKind::login);
    if (!system_counts_bytes_of_connections()) GTEST_SKIP() << "silent connections cannot be told from others here";
    for (const int side : {quiet.accepted, quiet.peer}) send(side, greeting_3.data(), greeting_3.size(), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // longer than one may be silent
    limits_take_refusal();
    for (const bool refused : {false, true}) {
        if (refused) limits_note_refusal();
        for (int ticks = 0; ticks < 8; ticks++) tick();
        EXPECT_EQ(connection_table_has_live(silent.port), !refused);
        EXPECT_TRUE(connection_table_has_live(quiet.port));
    }
}

TEST(Limits, LeaveMemoryForWhatComesInOverAConnection) {
#if defined __SANITIZE_ADDRESS__ || defined __SANITIZE_THREAD__
    GTEST_SKIP() << "the sanitizers take address space themselves";
#endif
    size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit before = {};
    getrlimit(RLIMIT_AS, &before);
    for (const auto &[mib, enough] : {
             std::pair(2, false), {64, true}
    }) {
        const rlimit scarce = {pages * static_cast<size_t>(getpagesize()) + (static_cast<size_t>(mib) << 20),
                               before.rlim_max};
        setrlimit(RLIMIT_AS, &scarce);
        const bool allowed = limits_leave(STDERR_FILENO, 0);
        setrlimit(RLIMIT_AS, &before);
        EXPECT_EQ(allowed, enough);
    }
}
