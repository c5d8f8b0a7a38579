#include "harness/wait.h"

#include <gtest/gtest.h>

std::chrono::milliseconds event_timeout() { return std::chrono::seconds(HARNESS_TIMEOUT_S); }

void abandon(const std::string &reason, const Where &where) {
    ADD_FAILURE_AT(where.file, where.line) << reason;
    throw Abandoned("test abandoned: " + reason);
}
