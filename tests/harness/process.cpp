/* A thread for each stream reads it until it closes; only then the exit is recorded. So when a program's exit is known
 * all its output has been read. */
#include "harness/process.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <sys/wait.h>
#include <unistd.h>

#include <glib.h>
#include <gtest/gtest.h>

#include "harness/recording.h"

static constexpr const char *inherited_variables[] = {
    "PATH",    "ASAN_OPTIONS",      "LSAN_OPTIONS", "UBSAN_OPTIONS",     "TSAN_OPTIONS",
    "G_SLICE", "LLVM_PROFILE_FILE", "GCOV_PREFIX",  "GCOV_PREFIX_STRIP", "LD_LIBRARY_PATH"};

static constexpr std::chrono::milliseconds after_failure{5000};
static constexpr size_t shown_lines = 40, shown_bytes = 200;  // of a recording, and of each of its lines

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

static std::vector<Process *> living;  // of ours

// Behind each failure: what the programs have printed last.
struct NewsPrinter : testing::EmptyTestEventListener {
    void OnTestPartResult(const testing::TestPartResult &result) override {
        if (result.failed())
            for (Process *process : living) std::cout << process->news() << std::flush;
    }
};
[[maybe_unused]] static const bool news_are_printed =
    (testing::UnitTest::GetInstance()->listeners().Append(new NewsPrinter), true);

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
    if (name_.starts_with("kesto-")) living.push_back(this);
}

Process::~Process() {
    send_signal(SIGKILL);
    reader_.join();
    waitpid(pid_, nullptr, 0);
    const std::string file = keep_recording(text(STDERR_FILENO));
    const bool ours = std::erase(living, this) == 1;
    if (!ours || (!testing::Test::HasFailure() && std::uncaught_exceptions() == 0)) return;
    std::cout << news() << "---- " << name_ << ", " << *exit_ << (file.empty() ? "" : "; all of its log: " + file)
              << std::endl;
}

std::string Process::news() {
    const std::lock_guard lock(mutex_);
    std::string news;
    const size_t first = std::max(told_, lines_.size() - std::min(lines_.size(), shown_lines));
    if (told_ < lines_.size())
        news = "---- " + name_ + ", line " + std::to_string(first + 1) + " to " + std::to_string(lines_.size()) + "\n";
    for (told_ = first; told_ < lines_.size(); told_++) {
        const std::string &line = lines_[told_].text;
        news += line.substr(0, shown_bytes) + (line.size() > shown_bytes ? " ...\n" : "\n");
    }
    return news;
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
    comes([&](auto at_most) { return changed_.wait_for(lock, at_most, [&] { return found() || exit_; }); });
    if (next < lines_.size()) return next;
    const std::string since = cursor_ > 0 ? " after \"" + lines_[cursor_ - 1].text.substr(0, shown_bytes) + '"' : "";
    const char *const what = exit_ ? " ended without the line \"" : " did not print in time: \"";
    lock.unlock();  // for the news
    abandon(name_ + what + std::string(message.substr(0, shown_bytes)) + '"' + since, where);
}

void Process::expect_log(const Texts &messages, Where where) {
    for (const std::string &message : messages) cursor_ = wait_for(message, where) + 1;
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
    // Where one hangs, and where the test has failed, as much has been waited for already.
    static bool one_hangs = false;
    const bool briefly = one_hangs || testing::Test::HasFailure();
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, briefly ? after_failure : event_timeout(), [this] { return exit_.has_value(); });
    one_hangs = one_hangs || !exit_;
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
    const bool failed_before = testing::Test::HasFailure();
    const auto exit = exit_in_time();
    EXPECT_TRUE(failed_before || exit == Exit{}) << name_ << ": " << testing::PrintToString(exit);
}

void Process::expect_no_complaints() {
    const std::string all = text(STDOUT_FILENO) + text(STDERR_FILENO);
    for (const char *complaint : complaints)
        if (const size_t at = all.find(complaint); at != all.npos)
            ADD_FAILURE() << name_ << " complained:\n"
                          << all.substr(all.rfind('\n', at) + 1, shown_lines * shown_bytes);
}
