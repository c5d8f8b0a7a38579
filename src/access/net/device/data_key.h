/* data_key.h - single keys of the device's data service, as texts. Network thread only. */
#pragma once

/* The text of one key, which the caller releases with g_free, or NULL when it cannot be read. Blocks for one D-Bus call
 * of at most 25 s; makes none when a stop has been asked for or no descriptor is free. */
char *data_key_read(const char *key);
