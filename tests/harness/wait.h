/* wait.h - how the scenario tests wait: always for an event, never for a time. A wait that finds no event ends the test
 * with a failure that names what was waited for and the line that waited. */
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

using Clock = std::chrono::steady_clock;

/* The caller's place, as a default argument. std::source_location would do, but clang 14 cannot compile GCC's. */
struct Where {
    const char *file;
    int line;
    static constexpr Where current(const char *file = __builtin_FILE(), int line = __builtin_LINE()) {
        return {file, line};
    }
};

/* How long an event may take before it counts as never: far longer than it takes on a busy machine. */
std::chrono::milliseconds patience();

inline Clock::time_point deadline() { return Clock::now() + patience(); }

/* Thrown after the failure has been recorded, so that nothing is waited for in vain after it. */
struct Abandoned : std::runtime_error {
    using runtime_error::runtime_error;
};

[[noreturn]] void abandon(const std::string &reason, const Where &where);
