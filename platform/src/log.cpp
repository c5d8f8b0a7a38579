// The log sink: each message leaves in one write, so that the lines of several threads and processes that share the
// standard error never mix.
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <unistd.h>

#include <glib.h>

#include <kesto/log.h>

// A pipe takes a long message in pieces, between which another thread's would find room.
static std::mutex one_message_at_a_time;

static int debug_wanted() {
    const char *setting = std::getenv("KESTO_DEBUG");
    return setting != nullptr && *setting != '\0' && std::strcmp(setting, "0") != 0;
}

static void wait_until_writable(int descriptor) {
    pollfd writable{descriptor, POLLOUT, 0};
    poll(&writable, 1, -1);
}

// A pipe takes a long message in pieces; a standard error that somebody made non-blocking is waited for.
static void write_whole(int descriptor, const char *text, size_t length) {
    while (length > 0) {
        const ssize_t written = write(descriptor, text, length);
        if (written >= 0) {
            text += written;
            length -= static_cast<size_t>(written);
        } else if (errno == EAGAIN) {
            wait_until_writable(descriptor);
        } else if (errno != EINTR) {
            return;
        }
    }
}

[[gnu::format(printf, 1, 2)]] static void log_to_standard_error(const char *format, ...) {
    const int caller_errno = errno;
    va_list arguments;
    va_start(arguments, format);
    g_autofree char *message = g_strdup_vprintf(format, arguments);
    va_end(arguments);
    if (message != nullptr) {
        const std::lock_guard<std::mutex> whole(one_message_at_a_time);
        write_whole(STDERR_FILENO, message, std::strlen(message));
    }
    errno = caller_errno;
}

int _console_debug = debug_wanted();
void (*_kesto_log_printf)(const char *format, ...) = log_to_standard_error;
