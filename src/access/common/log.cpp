#include "common/log.h"

#include <cstdarg>
#include <unistd.h>

#include <glib.h>

void log_write(const char *file, int line, const char *format, ...) {
    if (_kesto_log_printf == nullptr) return;

    va_list arguments;
    va_start(arguments, format);
    g_autofree char *message = g_strdup_vprintf(format, arguments);
    va_end(arguments);

    _kesto_log_printf("[%-10s|%-4d] {%-17s:%-4d} %s", log_text(g_get_prgname()), getpid(), file, line, message);
}
