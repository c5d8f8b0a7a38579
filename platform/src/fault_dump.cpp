// The crash dump. Everything that runs in the handler is async-signal-safe: no allocation, no stdio. A second thread
// that fails meanwhile waits, so that it neither spoils the dump nor ends the process before it is complete.
#include <atomic>
#include <charconv>
#include <csignal>
#include <ctime>
#include <execinfo.h>
#include <fcntl.h>
#include <iterator>
#include <string_view>
#include <unistd.h>

#include <kesto/device.h>

struct FatalSignal {
    int number;
    std::string_view name;
};
static constexpr FatalSignal fatal_signals[] = {
    {SIGSEGV, "SIGSEGV"},
    {SIGBUS,  "SIGBUS" },
    {SIGFPE,  "SIGFPE" },
    {SIGILL,  "SIGILL" },
    {SIGABRT, "SIGABRT"},
    {SIGTRAP, "SIGTRAP"}, // how GLib ends a process after a fatal message
};
static constexpr size_t fatal_signal_count = std::size(fatal_signals);

static constexpr int frames_max = 64;
static constexpr size_t signal_stack_bytes = size_t{64} << 10;
static constexpr unsigned dump_time_limit_s = 10;
static constexpr mode_t dump_mode = 0600;  // a backtrace tells where the code lies in memory

static const char *dump_path;
static struct sigaction previous_actions[fatal_signal_count];
static std::atomic_flag dumping = ATOMIC_FLAG_INIT;
// For a main thread that has used up its own stack; the other threads' handlers run on the stack that they have.
alignas(16) static char signal_stack[signal_stack_bytes];
static bool signal_stack_installed;

static void write_text(int file, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(file, text.data(), text.size());
        if (written <= 0) return;
        text.remove_prefix(static_cast<size_t>(written));
    }
}

static void write_number(int file, long long number) {
    char digits[24];
    const std::to_chars_result result = std::to_chars(std::begin(digits), std::end(digits), number);
    write_text(file, {digits, static_cast<size_t>(result.ptr - digits)});
}

static int open_dump() {
    const int file = open(dump_path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, dump_mode);
    return file != -1 ? file : STDERR_FILENO;
}

static void write_dump(const FatalSignal &signal) {
    const int file = open_dump();
    write_text(file, "signal: ");
    write_number(file, signal.number);
    write_text(file, " ");
    write_text(file, signal.name);
    write_text(file, "\ntime: ");
    write_number(file, time(nullptr));
    write_text(file, " s since 1970\nbacktrace:\n");
    void *frames[frames_max];
    backtrace_symbols_fd(frames, backtrace(frames, frames_max), file);
    if (file != STDERR_FILENO) close(file);
}

static void on_fatal_signal(int number) {
    if (dumping.test_and_set()) {
        for (;;) pause();
    }
    alarm(dump_time_limit_s);  // a process too broken to dump must still end
    for (size_t i = 0; i < fatal_signal_count; ++i) {
        if (fatal_signals[i].number != number) continue;
        write_dump(fatal_signals[i]);
        sigaction(number, &previous_actions[i], nullptr);
    }
    raise(number);  // blocked here, so it takes its usual effect when the handler returns
}

static void install_signal_stack() {
    stack_t current{};
    if (sigaltstack(nullptr, &current) != 0 || (current.ss_flags & SS_DISABLE) == 0) return;
    stack_t own{};
    own.ss_sp = signal_stack;
    own.ss_size = sizeof(signal_stack);
    signal_stack_installed = sigaltstack(&own, nullptr) == 0;
}

static void remove_signal_stack() {
    if (!signal_stack_installed) return;
    stack_t none{};
    none.ss_flags = SS_DISABLE;
    sigaltstack(&none, nullptr);
    signal_stack_installed = false;
}

void init_fault_dump(const char *path) {
    close_fault_dump();
    if (path == nullptr) return;
    void *frame;
    backtrace(&frame, 1);  // loads the unwinder, which the handler could not
    dump_path = path;
    install_signal_stack();
    struct sigaction action {};
    action.sa_handler = on_fatal_signal;
    action.sa_flags = SA_ONSTACK;
    // All of them are held off meanwhile: a fault inside the handler ends the process instead of entering it again.
    sigemptyset(&action.sa_mask);
    for (const FatalSignal &signal : fatal_signals) sigaddset(&action.sa_mask, signal.number);
    for (size_t i = 0; i < fatal_signal_count; ++i) {
        sigaction(fatal_signals[i].number, &action, &previous_actions[i]);
    }
}

void close_fault_dump(void) {
    if (dump_path == nullptr) return;
    for (size_t i = 0; i < fatal_signal_count; ++i) sigaction(fatal_signals[i].number, &previous_actions[i], nullptr);
    remove_signal_stack();
    dump_path = nullptr;
}
