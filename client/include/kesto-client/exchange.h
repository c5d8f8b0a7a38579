/* exchange.h - one request and its answer, blocking; for checks, tests and what needs no session. */
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "answer.h"
#include "device.h"
#include "loop.h"

namespace kesto {

/* How long a blocking call may wait. */
struct Patience {
    int limit_ms = 5000;
    std::function<bool()> stop = {};  // asked after each signal handler; true ends the call as Outcome::interrupted
};

/* The numeric IPv4 address of a host name or address; none when there is none. May ask the network for long. */
KESTO_CLIENT_API std::optional<std::string> resolve_host(const std::string &host);

/* Whether something accepts TCP connections there; takes one and closes it at once. Never ask this of the command port
 * of a monitored session: the device would take the closed connection for the client's and end the session. */
KESTO_CLIENT_API bool accepts_connections(const Endpoint &endpoint, const Patience &patience);

/* Connects, sends one request and waits for its reply: Outcome::done whatever the reply's status, not_sent when nothing
 * takes connections there. `loop` lends its ZeroMQ context, and none of its callbacks is called. */
KESTO_CLIENT_API Answer exchange(const Loop &loop, const Endpoint &endpoint, const Request &request,
                                 const Patience &patience);

/* The same with frames of any content, and the frames of the answer as they are; `answer.reply` is empty. */
struct FramesAnswer {
    Answer answer;
    std::vector<std::string> frames;
};
KESTO_CLIENT_API FramesAnswer exchange_frames(const Loop &loop, const Endpoint &endpoint,
                                              const std::vector<std::string> &frames, const Patience &patience);

/* The frame of a request, and what a frame from a device holds; none when it is no reply, and nothing published. */
KESTO_CLIENT_API std::optional<std::string> encode(const Request &request); /* none for a text that is not valid */
KESTO_CLIENT_API std::optional<Reply> decode_reply(const std::string &frame);
KESTO_CLIENT_API std::optional<Published> decode_published(const std::string &frame);

}  // namespace kesto
