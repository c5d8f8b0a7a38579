/* Level-triggered epoll over ZeroMQ's descriptors, which are readable until ZMQ_EVENTS is asked. Each operation on a
 * socket may swallow that sign, so a task that has used a socket looks at its ZMQ_EVENTS before it waits again. */
#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <zmq.h>

#include <kesto-client/loop.h>

#include "loop_core.h"
#include "mark.h"

namespace kesto {

static constexpr int ready_most = 64;           // descriptors in one pass; the others follow in the next
static constexpr int context_descriptors = 16;  // what a context takes at its start, with some to spare

int64_t now_ms() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * ms_per_s + now.tv_nsec / 1000000;
}

Task::~Task() {
    if (due_) loop_->due_.erase({*due_, this});
    loop_->woken_.erase(this);
}

void Task::watch(int descriptor) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    epoll_ctl(loop_->epoll_, EPOLL_CTL_ADD, descriptor, &event);
    loop_->watched_[descriptor] = this;
    descriptors_.insert(descriptor);
}

void Task::unwatch_all() {
    while (!descriptors_.empty()) unwatch(*descriptors_.begin());
}

void Task::unwatch(int descriptor) {
    if (descriptors_.erase(descriptor) == 0) return;
    epoll_ctl(loop_->epoll_, EPOLL_CTL_DEL, descriptor, nullptr);
    loop_->watched_.erase(descriptor);
}

void Task::wake() { loop_->woken_.insert(this); }

void Task::set_due(int64_t at) {
    if (due_) loop_->due_.erase({*due_, this});
    due_ = at;
    loop_->due_.insert({at, this});
}

void Task::tell(std::function<void()> callback) {
    loop_->callbacks_.push_back({weak_from_this(), std::move(callback)});
}

[[noreturn]] static void throw_system_error(const char *what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/* ZeroMQ ends the process when a context cannot have its threads and their descriptors, so this is tried beforehand. */
static void require_resources(int descriptor) {
    std::vector<int> tried;
    while (tried.size() < context_descriptors) {
        const int duplicate = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
        if (duplicate < 0) break;
        tried.push_back(duplicate);
    }
    const int error = errno;
    for (const int duplicate : tried) close(duplicate);
    errno = error;
    if (tried.size() < context_descriptors) throw_system_error("descriptors for a loop");
    std::thread([] {}).join();
}

static void *start_context() {
    void *context = zmq_ctx_new();
    if (context == nullptr) throw_system_error("a ZeroMQ context");
    zmq_ctx_set(context, ZMQ_MAX_SOCKETS, zmq_ctx_get(context, ZMQ_SOCKET_LIMIT));
    void *first = zmq_socket(context, ZMQ_REQ);  // starts the threads
    if (first != nullptr) zmq_close(first);
    return context;
}

LoopCore::LoopCore() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
    if (epoll_ < 0) throw_system_error("epoll");
    try {
        require_resources(epoll_);
        context_ = start_context();
    } catch (...) {
        close(epoll_);
        throw;
    }
}

LoopCore::~LoopCore() {
    zmq_ctx_term(context_);  // no socket is left, since every task holds the loop
    close(epoll_);
}

int LoopCore::timeout_ms() const {
    if (!woken_.empty() || !callbacks_.empty()) return 0;
    if (due_.empty()) return -1;
    return static_cast<int>(std::clamp<int64_t>(due_.begin()->first - now_ms(), 0, INT_MAX));
}

void LoopCore::add_due(Ready &ready) {
    const int64_t now = now_ms();
    while (!due_.empty() && due_.begin()->first <= now) {
        Task *task = due_.begin()->second;
        task->due_.reset();
        due_.erase(due_.begin());
        ready.insert(task->shared_from_this());
    }
}

void LoopCore::add_readable(Ready &ready) {
    epoll_event events[ready_most];
    const int count = epoll_wait(epoll_, events, ready_most, 0);
    for (int i = 0; i < count; ++i) {
        const auto known = watched_.find(events[i].data.fd);
        if (known != watched_.end()) ready.insert(known->second->shared_from_this());
    }
}

/* Those that are there now; what they bring about comes with the next dispatch. */
void LoopCore::run_callbacks() {
    for (size_t left = callbacks_.size(); left > 0; --left) {
        const Callback callback = std::move(callbacks_.front());
        callbacks_.pop_front();
        const std::shared_ptr<Task> owner = callback.owner.lock();  // lives until the callback has returned
        if (owner) callback.call();
    }
}

void LoopCore::dispatch() {
    if (dispatching_) return;
    const Mark mark(dispatching_);
    {
        Ready ready;
        for (Task *task : woken_) ready.insert(task->shared_from_this());
        woken_.clear();
        add_due(ready);
        add_readable(ready);
        for (const std::shared_ptr<Task> &task : ready) task->go_on(now_ms());
    }
    run_callbacks();
}

Loop::Loop() : core_(std::make_shared<LoopCore>()) {}
Loop::~Loop() = default;

int Loop::descriptor() const { return core_->descriptor(); }
int Loop::timeout_ms() const { return core_->timeout_ms(); }

void Loop::dispatch() { core_->dispatch(); }

bool Loop::wait(int limit_ms) {
    const int timeout = core_->timeout_ms();
    const bool limited = limit_ms >= 0 && (timeout < 0 || limit_ms < timeout);
    pollfd item = {core_->descriptor(), POLLIN, 0};
    const bool interrupted = poll(&item, 1, limited ? limit_ms : timeout) < 0 && errno == EINTR;
    core_->dispatch();
    return !interrupted;
}

}  // namespace kesto
