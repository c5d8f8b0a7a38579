/* log.h - the debug switch and the log sink. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Non-zero: messages are written. Set once, when the library is loaded. */
extern int _console_debug;

/* The sink, or NULL. Writes one formatted message with one write. Any thread. */
extern void (*_kesto_log_printf)(const char *format, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}
#endif
