#include "common/log.h"

#include <algorithm>
#include <cstdarg>
#include <unistd.h>

#include <glib.h>
#include <glib/gprintf.h>

void log_write(const char *file, int line, const char *format, ...) {
    if (_kesto_log_printf == nullptr) return;

    va_list arguments;
    va_start(arguments, format);
    g_autofree char *message = nullptr;
    const int length = g_vasprintf(&message, format, arguments);
    va_end(arguments);
    if (length < 0) return;
    std::replace(message, message + length, '\0', '?');  // a "%c" of 0 must not cut the line

    _kesto_log_printf("[%-10s|%-4d] {%-17s:%-4d} %s", log_text(g_get_prgname()), getpid(), file, line, message);
}
