/* A thread for each stream reads it until it closes; only then the exit is recorded. So when a program's exit is known
 * all its output has been read. */
#include "harness/process.h"

#include <cstdlib>
#include <iostream>
#include <sys/wait.h>
#include <unistd.h>

#include <glib.h>
#include <gtest/gtest.h>

#include "harness/recording.h"

static constexpr const char *inherited_variables[] = {"PATH",          "ASAN_OPTIONS",      "LSAN_OPTIONS",
                                                      "UBSAN_OPTIONS", "TSAN_OPTIONS",      "LLVM_PROFILE_FILE",
                                                      "GCOV_PREFIX",   "GCOV_PREFIX_STRIP", "LD_LIBRARY_PATH"};

static constexpr const char *complaints[] = {
    "CRITICAL **", "WARNING **", "Sanitizer",     "runtime error:",
    "Assertion",   "dangling",   "[libprotobuf ", "terminate called after",
    "pass phrase", " routines:",
};

static std::string_view message_of(std::string_view line) {
    const size_t brace = line.find("] {");
    if (!line.starts_with('[') || brace == line.npos || line.find('|') > brace) return line;
    const size_t end = line.find("} ", brace);
    return end == line.npos ? line : line.substr(end + 2);
}

static bool matches(std::string_view text, std::string_view pattern) {
    const size_t star = pattern.find('*');
    if (star == pattern.npos) return text == pattern;
    if (!text.starts_with(pattern.substr(0, star))) return false;
    const std::string_view rest = pattern.substr(star + 1);
    for (size_t at = star; at <= text.size(); at++)
        if (matches(text.substr(at), rest)) return true;
    return false;
}

std::ostream &operator<<(std::ostream &out, const Exit &exit) {
    if (exit.signal != 0) return out << "killed by signal " << exit.signal;
    return out << "exit status " << exit.status;
}

Process::Process(Texts command, Environment environment)
    : name_(command.front().substr(command.front().rfind('/') + 1)) {
    std::vector<char *> words;
    words.reserve(command.size() + 1);
    for (std::string &word : command) words.push_back(word.data());
    words.push_back(nullptr);
    g_auto(GStrv) variables = nullptr;
    for (const char *variable : inherited_variables)
        if (const char *value = getenv(variable)) environment.emplace(variable, value);
    for (const auto &[variable, value] : environment)
        variables = g_environ_setenv(variables, variable.c_str(), value.c_str(), TRUE);

    const auto flags =
        static_cast<GSpawnFlags>(G_SPAWN_SEARCH_PATH | G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_CLOEXEC_PIPES);
    int output = -1, errors = -1;
    g_autoptr(GError) error = nullptr;
    if (!g_spawn_async_with_pipes(nullptr, words.data(), variables, flags, nullptr, nullptr, &pid_, nullptr, &output,
                                  &errors, &error))
        throw Abandoned(error->message);
    reader_ = std::thread(&Process::record, this, output, errors);
}

Process::~Process() {
    send_signal(SIGKILL);
    reader_.join();
    waitpid(pid_, nullptr, 0);
    keep_recording(text(STDERR_FILENO));
    if (!testing::Test::HasFailure() && std::uncaught_exceptions() == 0) return;
    std::cout << "---- " << name_ << ", " << *exit_ << "\n";
    for (const Line &line : lines_) std::cout << line.text << '\n';
    std::cout << "----\n" << std::flush;
}

void Process::record(int output, int errors) {
    std::thread output_reader(&Process::read_lines, this, output, STDOUT_FILENO);
    read_lines(errors, STDERR_FILENO);
    output_reader.join();
    siginfo_t end;
    waitid(P_PID, static_cast<id_t>(pid_), &end, WEXITED | WNOWAIT);
    const std::lock_guard lock(mutex_);
    exit_ = end.si_code == CLD_EXITED ? Exit{.status = end.si_status} : Exit{.signal = end.si_status};
    changed_.notify_all();
}

void Process::read_lines(int descriptor, int stream) {
    FILE *file = fdopen(descriptor, "r");
    char *line = nullptr;
    size_t size = 0;
    for (ssize_t length; (length = getline(&line, &size, file)) > 0;) {
        const std::string_view text(line, static_cast<size_t>(length));
        const std::lock_guard lock(mutex_);
        lines_.push_back({stream, std::string(text.substr(0, text.size() - text.ends_with('\n')))});
        changed_.notify_all();
    }
    free(line);
    fclose(file);
}

size_t Process::wait_for(std::string_view message, const Where &where) {
    size_t next = cursor_;
    const auto found = [&] {
        while (next < lines_.size() && !matches(message_of(lines_[next].text), message)) next++;
        return next < lines_.size();
    };
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, event_timeout(), [&] { return found() || exit_; });
    if (next < lines_.size()) return next;
    abandon(name_ + (exit_ ? " ended without the line \"" : " did not print in time: \"") + std::string(message) + '"',
            where);
}

void Process::expect_log(std::initializer_list<std::string_view> messages, Where where) {
    for (const std::string_view message : messages) cursor_ = wait_for(message, where) + 1;
}

Texts Process::log_until(std::string_view fence, Where where) {
    const size_t end = wait_for(fence, where);
    const std::lock_guard lock(mutex_);
    Texts messages;
    for (; cursor_ < end; cursor_++) messages.emplace_back(message_of(lines_[cursor_].text));
    cursor_++;
    return messages;
}

void Process::expect_no_log_before(std::string_view message, std::string_view fence, Where where) {
    for (const std::string &found : log_until(fence, where))
        if (matches(found, message)) ADD_FAILURE_AT(where.file, where.line) << name_ << " printed: " << found;
}

std::string Process::text(int stream) {
    const std::lock_guard lock(mutex_);
    std::string text;
    for (const Line &line : lines_)
        if (line.stream == stream) text += line.text + '\n';
    return text;
}

std::optional<Exit> Process::exit_in_time() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, event_timeout(), [this] { return exit_.has_value(); });
    return exit_;
}

Exit Process::wait_exit(Where where) {
    const auto exit = exit_in_time();
    if (!exit) abandon(name_ + " did not end in time", where);
    exit_seen_ = true;
    return *exit;
}

void Process::expect_orderly_end() {
    if (exit_seen_) return;
    send_signal(SIGTERM);
    EXPECT_EQ(exit_in_time(), Exit{}) << name_;
}

void Process::expect_no_complaints() {
    const std::lock_guard lock(mutex_);
    for (const Line &line : lines_)
        for (const char *complaint : complaints)
            if (line.text.find(complaint) != line.text.npos) ADD_FAILURE() << name_ << " complained: " << line.text;
}
