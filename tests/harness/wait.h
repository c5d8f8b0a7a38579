/* wait.h - how the scenario tests wait: for an event, never for a time. When the event does not come, the test ends
 * with a failure that names the event and the line that waited for it. */
#pragma once

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <sys/types.h>

using Clock = std::chrono::steady_clock;

/* The caller's place, as a default argument. std::source_location would do, but clang 14 cannot compile GCC's. */
struct Where {
    const char *file;
    int line;
    static constexpr Where current(const char *file = __builtin_FILE(), int line = __builtin_LINE()) {
        return {file, line};
    }
};

/* After this time an event is taken never to come. Far longer than it takes on a busy machine. */
std::chrono::milliseconds event_timeout();

/* The process whose events are waited for, 0: none. Once it has ended nothing more is waited for than what is on its
 * way. */
void expect_events_of(pid_t service);

/* Whether the event comes in time. `come` waits for it, at most as long as it is told, and says whether it is there. */
bool comes(const std::function<bool(std::chrono::milliseconds)> &come,
           std::chrono::milliseconds at_most = event_timeout());

inline Clock::time_point deadline() { return Clock::now() + event_timeout(); }

/* Ends the test; thrown after its failure has been recorded. */
struct Abandoned : std::runtime_error {
    using runtime_error::runtime_error;
};

/* What is said of it includes the service's end, if it has ended. */
[[noreturn]] void abandon(const std::string &reason, const Where &where);
