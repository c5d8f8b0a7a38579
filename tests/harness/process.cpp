/* One thread for each program reads both of its streams until they close, and then collects its exit. A program whose
 * exit is known has therefore said everything. */
#include "harness/process.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

constexpr const char *inherited_variables[] = {"PATH",          "ASAN_OPTIONS",      "LSAN_OPTIONS",
                                               "UBSAN_OPTIONS", "TSAN_OPTIONS",      "LLVM_PROFILE_FILE",
                                               "GCOV_PREFIX",   "GCOV_PREFIX_STRIP", "LD_LIBRARY_PATH"};

constexpr const char *complaints[] = {
    "CRITICAL **", "WARNING **",     "ERROR **",
    "Sanitizer",   "runtime error:", "Assertion",
    "dangling",    "[libprotobuf ",  "terminate called after",
};

struct Pipe {
    int end[2];
    Pipe() {
        if (pipe2(end, O_CLOEXEC) != 0) throw Abandoned(std::string("pipe: ") + strerror(errno));
    }
};

std::vector<char *> pointers_to(std::vector<std::string> &texts) {
    std::vector<char *> pointers;
    for (std::string &text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> complete_environment(Environment environment) {
    for (const char *variable : inherited_variables)
        if (const char *value = getenv(variable)) environment.emplace(variable, value);
    std::vector<std::string> texts;
    for (const auto &[variable, value] : environment) texts.push_back(variable + "=" + value);
    return texts;
}

/* A session of its own keeps the terminal's Ctrl-C away, and no signal is blocked or ignored that the test ignores. */
pid_t spawn(std::vector<std::string> command, const Environment &environment, int output, int error) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, error, STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);

    std::vector<std::string> variables = complete_environment(environment);
    pid_t pid = -1;
    const int failed = posix_spawnp(&pid, command.front().c_str(), &actions, &attributes, pointers_to(command).data(),
                                    pointers_to(variables).data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) throw Abandoned(command.front() + ": " + strerror(failed));
    return pid;
}

std::string_view message_of(std::string_view line) {
    const size_t brace = line.find("] {");
    if (!line.starts_with('[') || brace == line.npos || line.find('|') > brace) return line;
    const size_t end = line.find("} ", brace);
    return end == line.npos ? line : line.substr(end + 2);
}

bool matches(std::string_view text, std::string_view pattern) {
    const size_t star = pattern.find('*');
    if (star == pattern.npos) return text == pattern;
    if (!text.starts_with(pattern.substr(0, star))) return false;
    const std::string_view rest = pattern.substr(star + 1);
    for (size_t at = star; at <= text.size(); at++)
        if (matches(text.substr(at), rest)) return true;
    return false;
}

}  // namespace

std::ostream &operator<<(std::ostream &out, const Exit &exit) {
    if (exit.signal != 0) return out << "killed by signal " << exit.signal;
    return out << "exit status " << exit.status;
}

Process::Process(std::vector<std::string> command, const Environment &environment)
    : name_(command.front().substr(command.front().rfind('/') + 1)) {
    const Pipe output, error;
    pid_ = spawn(std::move(command), environment, output.end[1], error.end[1]);
    close(output.end[1]);
    close(error.end[1]);
    reader_ = std::thread([this, out = output.end[0], err = error.end[0]] { read_until_end(out, err); });
}

Process::~Process() {
    send_signal(SIGKILL);
    reader_.join();
    if (!testing::Test::HasFailure() && std::uncaught_exceptions() == 0) return;
    std::cout << "---- " << name_ << ", " << *exit_ << "\n";
    for (const Line &line : lines_) std::cout << line.text << '\n';
    std::cout << "----\n" << std::flush;
}

void Process::add_lines(int stream, std::string &rest, std::string_view bytes) {
    rest += bytes;
    const std::lock_guard lock(mutex_);
    for (size_t end; (end = rest.find('\n')) != rest.npos; rest.erase(0, end + 1))
        lines_.push_back({stream, rest.substr(0, end)});
    if (bytes.empty() && !rest.empty()) lines_.push_back({stream, rest});
    changed_.notify_all();
}

void Process::read_until_end(int standard_output, int standard_error) {
    pollfd streams[] = {
        {standard_output, POLLIN, 0},
        {standard_error,  POLLIN, 0}
    };
    std::string rest[2];
    for (int open = 2; open > 0;) {
        poll(streams, 2, -1);
        for (int i = 0; i < 2; i++) {
            if (streams[i].revents == 0) continue;
            char bytes[4096];
            const ssize_t count = read(streams[i].fd, bytes, sizeof bytes);
            add_lines(i + STDOUT_FILENO, rest[i], {bytes, count > 0 ? static_cast<size_t>(count) : 0});
            if (count > 0) continue;
            close(streams[i].fd);
            streams[i].fd = -1;
            open--;
        }
    }
    note_exit();
}

/* The process id stays ours until exit_ is set, so that no signal ever reaches somebody else. */
void Process::note_exit() {
    siginfo_t unused;
    waitid(P_PID, static_cast<id_t>(pid_), &unused, WEXITED | WNOWAIT);
    const std::lock_guard lock(mutex_);
    int status = 0;
    waitpid(pid_, &status, 0);
    exit_ = WIFSIGNALED(status) ? Exit{.signal = WTERMSIG(status)} : Exit{.status = WEXITSTATUS(status)};
    changed_.notify_all();
}

size_t Process::wait_for(std::string_view message, const Where &where) {
    const auto end = deadline();
    std::unique_lock lock(mutex_);
    for (size_t next = cursor_;;) {
        for (; next < lines_.size(); next++)
            if (matches(message_of(lines_[next].text), message)) return next;
        if (exit_) break;
        if (changed_.wait_until(lock, end) == std::cv_status::timeout && next == lines_.size()) break;
    }
    const bool ended = exit_.has_value();
    lock.unlock();
    abandon(name_ + (ended ? " ended without the line \"" : " did not print in time: \"") + std::string(message) + '"',
            where);
}

void Process::expect_log(std::initializer_list<std::string_view> messages, Where where) {
    for (const std::string_view message : messages) cursor_ = wait_for(message, where) + 1;
}

std::vector<std::string> Process::log_until(std::string_view fence, Where where) {
    const size_t end = wait_for(fence, where);
    const std::lock_guard lock(mutex_);
    std::vector<std::string> messages;
    for (; cursor_ < end; cursor_++) messages.emplace_back(message_of(lines_[cursor_].text));
    cursor_++;
    return messages;
}

void Process::expect_no_log_before(std::string_view message, std::string_view fence, Where where) {
    for (const std::string &found : log_until(fence, where))
        if (matches(found, message))
            ADD_FAILURE_AT(where.file_name(), static_cast<int>(where.line())) << name_ << " printed: " << found;
}

std::string Process::text_of(int stream) {
    const std::lock_guard lock(mutex_);
    std::string text;
    for (const Line &line : lines_)
        if (line.stream == stream) text += line.text + '\n';
    return text;
}

std::string Process::standard_output() { return text_of(STDOUT_FILENO); }

std::string Process::standard_error() { return text_of(STDERR_FILENO); }

bool Process::running() {
    const std::lock_guard lock(mutex_);
    return !exit_;
}

void Process::send_signal(int number) {
    const std::lock_guard lock(mutex_);
    if (!exit_) kill(pid_, number);
}

std::optional<Exit> Process::exit_until(Clock::time_point end) {
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, end, [this] { return exit_.has_value(); });
    return exit_;
}

Exit Process::wait_exit(Where where) {
    const auto exit = exit_until(deadline());
    if (!exit) abandon(name_ + " did not end in time", where);
    exit_seen_ = true;
    return *exit;
}

void Process::expect_orderly_end() {
    if (exit_seen_) return;
    send_signal(SIGTERM);
    const auto exit = exit_until(deadline());
    if (!exit) ADD_FAILURE() << name_ << " did not end after SIGTERM";
    else EXPECT_EQ(*exit, Exit{}) << name_;
}

bool Process::is_allowed(const std::string &line) const {
    for (const std::string &text : allowed_)
        if (line.find(text) != line.npos) return true;
    return false;
}

void Process::expect_no_complaints() {
    const std::lock_guard lock(mutex_);
    for (const Line &line : lines_)
        for (const char *complaint : complaints)
            if (line.text.find(complaint) != line.text.npos && !is_allowed(line.text))
                ADD_FAILURE() << name_ << " complained: " << line.text;
}
