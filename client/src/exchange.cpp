#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <kesto-client/exchange.h>

#include "exchange_with.h"
#include "owned.h"

namespace kesto {

static Waited wait_for(int descriptor, short events, int64_t until, const std::function<bool()> &stop) {
    for (;;) {
        pollfd item = {descriptor, events, 0};
        const int left_ms = static_cast<int>(std::clamp<int64_t>(until - now_ms(), 0, INT_MAX));
        const int count = poll(&item, 1, left_ms);
        if (count > 0) return Waited::ready;
        if (count == 0 || errno != EINTR) return Waited::late;
        if (stop && stop()) return Waited::interrupted;
    }
}

Waited wait_readable(int descriptor, int64_t until, const std::function<bool()> &stop) {
    return wait_for(descriptor, POLLIN, until, stop);
}

std::optional<std::string> resolve_host(const std::string &host) {
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &wanted, &found) != 0) return std::nullopt;
    const std::unique_ptr<addrinfo, ByPointer<freeaddrinfo>> list(found);
    char text[NI_MAXHOST];
    if (getnameinfo(list->ai_addr, list->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) != 0)
        return std::nullopt;
    return text;
}

static bool connects(int descriptor, const Endpoint &endpoint, const Patience &patience) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(endpoint.port));
    if (inet_pton(AF_INET, endpoint.address.c_str(), &to.sin_addr) != 1) return false;
    if (connect(descriptor, reinterpret_cast<sockaddr *>(&to), sizeof to) == 0) return true;
    if (errno != EINPROGRESS) return false;
    if (wait_for(descriptor, POLLOUT, now_ms() + patience.limit_ms, patience.stop) != Waited::ready) return false;
    int error = 0;
    socklen_t size = sizeof error;
    return getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

bool accepts_connections(const Endpoint &endpoint, const Patience &patience) {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor < 0) return false;
    const bool accepted = connects(descriptor, endpoint, patience);
    close(descriptor);
    return accepted;
}

/* Calls `go_on`, which does what can be done now, until it has an answer. */
template <typename Result>
static std::optional<Result> wait_for_answer(Requester &requester, const Patience &patience,
                                             std::optional<Result> (Requester::*go_on)(int64_t)) {
    for (;;) {
        std::optional<Result> result = (requester.*go_on)(now_ms());
        if (result) return result;
        if (wait_readable(requester.descriptor(), requester.due(), patience.stop) == Waited::interrupted)
            return std::nullopt;
    }
}

static Answer stopped() { return {Outcome::interrupted, "interrupted", {}}; }

Answer exchange_with(Requester &requester, const Request &request, const Patience &patience) {
    requester.ask(request, now_ms(), patience.limit_ms);
    return wait_for_answer(requester, patience, &Requester::go_on).value_or(stopped());
}

Answer exchange(const Loop &loop, const Endpoint &endpoint, const Request &request, const Patience &patience) {
    Requester requester(loop.core()->context(), endpoint, AfterLoss::reconnect);
    return exchange_with(requester, request, patience);
}

FramesAnswer exchange_frames(const Loop &loop, const Endpoint &endpoint, const std::vector<std::string> &frames,
                             const Patience &patience) {
    Requester requester(loop.core()->context(), endpoint, AfterLoss::reconnect);
    requester.ask(frames, now_ms(), patience.limit_ms);
    std::optional<Requester::Raw> raw = wait_for_answer(requester, patience, &Requester::go_on_raw);
    if (!raw) return {stopped(), {}};
    return {std::move(raw->answer), std::move(raw->frames)};
}

}  // namespace kesto
