#include "harness/wait.h"

#include <algorithm>

#include <gtest/gtest.h>

std::chrono::milliseconds patience() { return std::chrono::seconds(HARNESS_PATIENCE_S); }

int milliseconds_until(Clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    return static_cast<int>(std::max<decltype(left)>(left, 0));
}

void abandon(const std::string &reason, const Where &where) {
    ADD_FAILURE_AT(where.file_name(), static_cast<int>(where.line())) << reason;
    throw Abandoned("test abandoned: " + reason);
}
