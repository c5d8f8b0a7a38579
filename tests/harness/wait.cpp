#include "harness/wait.h"

#include <algorithm>
#include <atomic>
#include <sys/wait.h>

#include <gtest/gtest.h>

static constexpr std::chrono::milliseconds turn{100}, last_words{5000};

static std::atomic<pid_t> awaited_service = 0;

void expect_events_of(pid_t service) { awaited_service = service; }

// "" as long as it runs.
static std::string end_of_service() {
    siginfo_t end = {};
    if (awaited_service == 0) return "";
    waitid(P_PID, static_cast<id_t>(awaited_service.load()), &end, WEXITED | WNOWAIT | WNOHANG);
    if (end.si_pid == 0) return "";
    return std::string(end.si_code == CLD_EXITED ? "with status " : "by signal ") + std::to_string(end.si_status);
}

std::chrono::milliseconds event_timeout() { return std::chrono::seconds(HARNESS_TIMEOUT_S); }

bool comes(const std::function<bool(std::chrono::milliseconds)> &come, std::chrono::milliseconds at_most) {
    bool ended = false;
    for (auto end = Clock::now() + at_most;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        if (come(std::clamp(left, std::chrono::milliseconds(0), turn))) return true;
        if (left.count() <= 0) return false;
        if (!ended && !end_of_service().empty()) {
            ended = true;
            end = std::min(end, Clock::now() + last_words);
        }
    }
}

void abandon(const std::string &reason, const Where &where) {
    const std::string end = end_of_service();
    const std::string why = end.empty() ? reason : reason + "; the service has ended " + end;
    ADD_FAILURE_AT(where.file, where.line) << why;
    throw Abandoned("test abandoned: " + why);
}
