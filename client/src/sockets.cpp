/* A REQ socket tells by ZMQ_POLLOUT whether its connection stands: with ZMQ_IMMEDIATE it has a pipe only while it does,
 * and with ZMQ_REQ_RELAXED it says so also while an answer is due. */
#include "sockets.h"

#include <algorithm>

#include "loop_core.h"
#include "text.h"
#include "wire.h"

namespace kesto {

static constexpr int64_t longest_answer_bytes = int64_t{64} << 20;  // of what a device says; it breaks the connection
static constexpr int connect_limit_ms = 5000, reconnect_ms = 1000, never = -1;

/* Only towards request ports: an event port takes little from its subscribers. */
static constexpr int heartbeat_ms = 5000, heartbeat_limit_ms = 10000, handshake_limit_ms = 10000;

struct Option {
    int name, value;
};

static void set(const Socket &socket, const Option &option) {
    zmq_setsockopt(socket.get(), option.name, &option.value, sizeof option.value);
}

template <size_t count>
static Socket open_socket(void *context, int type, const Option (&options)[count]) {
    Socket socket(zmq_socket(context, type));
    if (!socket) return socket;
    for (const Option &option : options) set(socket, option);
    zmq_setsockopt(socket.get(), ZMQ_MAXMSGSIZE, &longest_answer_bytes, sizeof longest_answer_bytes);
    return socket;
}

static void connect(Socket &socket, const Endpoint &endpoint) {
    if (socket && zmq_connect(socket.get(), ("tcp://" + endpoint_text(endpoint)).c_str()) != 0) socket.reset();
}

template <typename Value>
static Value option_of(const Socket &socket, int name) {
    Value value{};
    size_t size = sizeof value;
    zmq_getsockopt(socket.get(), name, &value, &size);
    return value;
}

static int descriptor_of(const Socket &socket) { return socket ? option_of<int>(socket, ZMQ_FD) : -1; }

/* All frames of the next message; none when there is none. */
static std::optional<Frames> receive_frames(const Socket &socket) {
    Frames frames;
    int more = 1;
    while (more != 0) {
        zmq_msg_t part;
        zmq_msg_init(&part);
        if (zmq_msg_recv(&part, socket.get(), ZMQ_DONTWAIT) < 0) {
            zmq_msg_close(&part);
            return std::nullopt;
        }
        frames.emplace_back(static_cast<const char *>(zmq_msg_data(&part)), zmq_msg_size(&part));
        more = zmq_msg_more(&part);
        zmq_msg_close(&part);
    }
    return frames;
}

static bool send_frames(const Socket &socket, const Frames &frames) {
    for (size_t i = 0; i < frames.size(); ++i) {
        const int more = i + 1 < frames.size() ? ZMQ_SNDMORE : 0;
        if (zmq_send(socket.get(), frames[i].data(), frames[i].size(), ZMQ_DONTWAIT | more) < 0) return false;
    }
    return true;
}

Requester::Requester(void *context, Endpoint endpoint, AfterLoss after_loss)
    : endpoint_(std::move(endpoint)),
      socket_(open_socket(context, ZMQ_REQ,
                          {
                              {ZMQ_LINGER,            0                                                        },
                              {ZMQ_IMMEDIATE,         1                                                        },
                              {ZMQ_REQ_RELAXED,       1                                                        },
                              {ZMQ_HEARTBEAT_IVL,     heartbeat_ms                                             },
                              {ZMQ_HEARTBEAT_TIMEOUT, heartbeat_limit_ms                                       },
                              {ZMQ_HANDSHAKE_IVL,     handshake_limit_ms                                       },
                              {ZMQ_RECONNECT_IVL,     after_loss == AfterLoss::reconnect ? reconnect_ms : never}
})) {
    connect(socket_, endpoint_);
    if (!socket_) error_ = zmq_errno();
}

void Requester::ask(Frames frames, int64_t now, int limit_ms) {
    stage_ = Stage::connecting;
    frames_ = std::move(frames);
    limit_ms_ = limit_ms;
    answer_until_ = now + limit_ms;
    connect_until_ = now + std::min(limit_ms, connect_limit_ms);
    sequence_.reset();
}

void Requester::ask(const Request &request, int64_t now, int limit_ms) {
    Encoded encoded = encode_request(request);
    ask(Frames{std::move(encoded.frame)}, now, limit_ms);
    sequence_ = request.sequence;
    if (encoded.problem.empty()) return;
    stage_ = Stage::refused;
    problem_ = {
        {Outcome::invalid, std::move(encoded.problem), {}},
        {  }
    };
}

void Requester::receive() {
    std::optional<Frames> frames = receive_frames(socket_);
    if (!frames || stage_ != Stage::asked) return;
    frames_ = std::move(*frames);
    answered_ = true;
}

void Requester::look() {
    for (;;) {
        const int events = option_of<int>(socket_, ZMQ_EVENTS);
        if ((events & ZMQ_POLLIN) != 0) {
            receive();
            continue;
        }
        const bool stands = (events & ZMQ_POLLOUT) != 0;
        if (connected_ && !stands) lost_ = true;
        connected_ = stands;
        if (!stands || stage_ != Stage::connecting) return;
        if (!send_frames(socket_, frames_)) return;
        stage_ = Stage::asked;
    }
}

Requester::Raw Requester::end(Outcome outcome, std::string sentence) {
    stage_ = Stage::idle;
    answered_ = false;
    return {
        {outcome, std::move(sentence), {}},
        std::move(frames_)
    };
}

Requester::Raw Requester::end_of_limit() {
    const bool sent = stage_ == Stage::asked;
    const int limit_ms = sent ? limit_ms_ : std::min(limit_ms_, connect_limit_ms);
    return end(sent ? Outcome::unknown : Outcome::not_sent,
               "no answer from " + endpoint_text(endpoint_) + " within " + seconds_text(limit_ms));
}

std::optional<Requester::Raw> Requester::go_on_raw(int64_t now) {
    if (stage_ == Stage::refused) {
        stage_ = Stage::idle;
        return std::move(problem_);
    }
    if (!socket_) {
        if (!busy()) return std::nullopt;
        return end(Outcome::not_sent, "cannot connect to " + endpoint_text(endpoint_) + ": " + zmq_strerror(error_));
    }
    look();
    if (!busy()) return std::nullopt;
    if (answered_) return end(Outcome::done, "");
    if (lost_)
        return end(awaits_answer() ? Outcome::unknown : Outcome::not_sent,
                   "the connection to " + endpoint_text(endpoint_) + " is gone");
    return now >= due() ? std::optional(end_of_limit()) : std::nullopt;
}

Answer Requester::answer_of(Raw raw) const {
    if (raw.answer.outcome != Outcome::done) return std::move(raw.answer);
    if (raw.frames.size() == 1 && raw.frames[0].empty())
        return {Outcome::invalid, "the device could not make anything of the request", {}};
    const std::string who = endpoint_text(endpoint_);
    std::optional<Reply> reply;
    if (raw.frames.size() == 1) reply = decode_reply(raw.frames[0]);
    if (!reply) return {Outcome::nonsense, who + " answered with something else than a reply", {}};
    if (reply->sequence != sequence_.value_or(reply->sequence)) {
        return {Outcome::nonsense,
                who + " answered request " + std::to_string(*sequence_) + " as " + std::to_string(reply->sequence),
                {}};
    }
    return {Outcome::done, "", std::move(*reply)};
}

std::optional<Answer> Requester::go_on(int64_t now) {
    std::optional<Raw> raw = go_on_raw(now);
    if (!raw) return std::nullopt;
    return answer_of(std::move(*raw));
}

int64_t Requester::due() const {
    if (stage_ == Stage::refused || !socket_) return 0;
    return stage_ == Stage::connecting && !connected_ ? connect_until_ : answer_until_;
}

int Requester::descriptor() const { return descriptor_of(socket_); }

Listener::Listener(void *context, const Endpoint &endpoint)
    : socket_(open_socket(context, ZMQ_SUB,
                          {
                              {ZMQ_LINGER,        0           },
                              {ZMQ_RECONNECT_IVL, reconnect_ms}
})) {
    if (socket_) zmq_setsockopt(socket_.get(), ZMQ_SUBSCRIBE, "", 0);
    connect(socket_, endpoint);
}

int Listener::descriptor() const { return descriptor_of(socket_); }

std::optional<std::string> Listener::receive() {
    if (!socket_) return std::nullopt;
    while ((option_of<int>(socket_, ZMQ_EVENTS) & ZMQ_POLLIN) != 0) {
        std::optional<Frames> frames = receive_frames(socket_);
        if (frames && frames->size() == 1) return std::move(frames->front());
    }
    return std::nullopt;
}

}  // namespace kesto
