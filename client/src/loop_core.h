/* loop_core.h - the inside of a loop: who waits for what. */
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace kesto {

constexpr int ms_per_s = 1000;

int64_t now_ms(); /* of a clock that nobody sets */

class LoopCore;

/* Something that lives in a loop. Owned by the public object, which is gone when its caller wishes it so. */
class Task : public std::enable_shared_from_this<Task> {
  public:
    explicit Task(std::shared_ptr<LoopCore> loop) : loop_(std::move(loop)) {}
    virtual ~Task();
    Task(const Task &) = delete;
    Task &operator=(const Task &) = delete;

    /* Looks at all that the task waits for: a descriptor may be ready, its time may have come, it was woken. Never
     * calls the caller back: that is what `tell` is for. */
    virtual void go_on(int64_t now) = 0;

  protected:
    LoopCore &loop() const { return *loop_; }
    void watch(int descriptor); /* until unwatch, which has to come before the descriptor is closed */
    void unwatch(int descriptor);
    void unwatch_all();       /* each destructor of a task begins with it */
    void wake();              /* go_on at the next dispatch */
    void set_due(int64_t at); /* go_on then, in the place of the time that was set before */
    void tell(std::function<void()> callback);

  private:
    friend class LoopCore;
    std::shared_ptr<LoopCore> loop_;
    std::optional<int64_t> due_;
    std::set<int> descriptors_;
};

class LoopCore {
  public:
    LoopCore(); /* throws std::system_error */
    ~LoopCore();
    LoopCore(const LoopCore &) = delete;
    LoopCore &operator=(const LoopCore &) = delete;

    int descriptor() const { return epoll_; }
    void *context() const { return context_; }
    int timeout_ms() const;
    void dispatch();

  private:
    friend class Task;
    using Ready = std::set<std::shared_ptr<Task>>;
    struct Callback {
        std::weak_ptr<Task> owner;
        std::function<void()> call;
    };

    void add_due(Ready &ready);
    void add_readable(Ready &ready);
    void run_callbacks();

    int epoll_ = -1;
    void *context_ = nullptr;
    bool dispatching_ = false;
    std::map<int, Task *> watched_;
    std::set<std::pair<int64_t, Task *>> due_;
    std::set<Task *> woken_;
    std::deque<Callback> callbacks_;
};

}  // namespace kesto
