/* wire.h - requests, replies and events of the wire contract over ZeroMQ sockets.
 *
 * One thread. Everything that waits is bounded by a time-out in milliseconds. Failures are thrown (failure.h):
 * not_reachable when nothing answers in time, refused when the answer is not a reply, interrupted after Ctrl-C. */
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <czmq.h>

#include "access.pb.h"
#include "owned.h"

namespace wire = kesto::access::v1;

constexpr const char *loopback_address = "127.0.0.1";
constexpr int auth_port = 60000;
constexpr int port_max = 65535;

constexpr int ms_per_s = 1000;
constexpr int64_t us_per_ms = 1000;

/* Bits and codes that the contract gives as numbers. */
constexpr uint32_t read_this_key_alone = 0x2000;
constexpr uint32_t write_is_lock = 0x1000;
constexpr uint32_t write_plain = 1;  // what the service itself gives each pair of a multi-write
constexpr uint32_t operation_read = 2;
constexpr uint32_t operation_write = 4;

/* D-Bus types that a value can have. */
constexpr const char *signature_of_text = "s", *signature_of_pairs = "a{ss}";

struct Endpoint {
    std::string address;  // numeric IPv4
    int port;
};

using Socket = std::unique_ptr<zsock_t, ByAddress<zsock_destroy>>;

std::string endpoint_text(const Endpoint &endpoint); /* "127.0.0.1:60000" */

/* The numeric IPv4 address of a host name or address. */
std::string resolve_host(const std::string &host);

/* Whether something accepts TCP connections there; takes one and closes it at once. Never ask this of the command port
 * of a monitored session: the service would take the closed connection for the client's and end the session. */
bool accepts_connections(const Endpoint &endpoint, int timeout_ms);

/* Sockets connect in the background: that nothing is there shows at the first exchange. */
Socket connect_commands(const Endpoint &endpoint);
Socket connect_events(const Endpoint &endpoint);

/* Sends one request and waits for its reply. After a failure the socket is of no further use. */
wire::Reply exchange(const Socket &socket, const Endpoint &endpoint, const wire::Request &request, int timeout_ms);

/* The same with frames of any content, and the frames of the answer as they are. */
std::vector<std::string> exchange_frames(const Socket &socket, const Endpoint &endpoint,
                                         const std::vector<std::string> &frames, int timeout_ms);
std::string request_frame(const wire::Request &request);

/* Waits for what the service publishes: an Event, or the Reply to another client's write. None after the time-out,
 * after Ctrl-C (zsys_interrupted), and for a frame that is not a message. */
std::optional<wire::Message> receive_published(const Socket &events, int timeout_ms);
