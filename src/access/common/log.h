/* log.h - the one log macro. A message is written when the platform's debug switch is on and its sink is set; with the
 * switch off a call costs one load and one branch, and its arguments are not evaluated. Any thread. */
#pragma once

#include <kesto/log.h>

#define LOG(...) ((void)(_console_debug != 0 ? log_write(__FILE__, __LINE__, __VA_ARGS__) : (void)0))

/* Logs that `what`, a literal, has failed, with the function that the macro stands in. */
#define LOG_FAILED(what) LOG("%s:%s:%d - " what "\n", __FILE__, __func__, __LINE__)

/* Blocks for one write to the sink. Messages of any length are written whole. */
[[gnu::format(printf, 3, 4)]] void log_write(const char *file, int line, const char *format, ...);

/* What stands in a message for a text that may be NULL. */
inline const char *log_text(const char *text) { return text != nullptr ? text : "(null)"; }
