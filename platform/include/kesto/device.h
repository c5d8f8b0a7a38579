/* device.h - facts of the device: its slot, its name, single keys of its data service; and the crash dump. */
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The id of the slot that the process was started from: 0 to 3, and 0 also when it cannot be told. Any thread. */
int kesto_detect_slot_id(void);

/* Reads one key of the data service: its text, which the caller releases with g_free, or NULL when it cannot be read
 * or is not a text. After kesto_process_new it blocks for one D-Bus call, at most 25 s; before, for connecting to the
 * bus as well. Any thread. */
char *kesto_dbus_data_read_kv(const char *key);

/* The amplifier's name, terminated and cut to `size` bytes. 0, or -1 when it has no name. Any thread. */
int getampname(char *buffer, size_t size);

/* From now on a fatal signal first writes its number, the time and a backtrace to `path`, which must stay valid; the
 * signal then has its usual effect. A dump that cannot be written goes to standard error. Main thread, like its end. */
void init_fault_dump(const char *path);
void close_fault_dump(void);

#ifdef __cplusplus
}
#endif
