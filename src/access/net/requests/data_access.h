/* data_access.h - what the codec calls to carry out a client's reads and writes: the client's right to each key is
 * checked, then the data service is called. Network thread only; each blocks until the data service has answered or
 * the time-out has passed: 25 s, in a multi-write 65 s.
 *
 * A refusal or a failure changes nothing here and is reported to the client through the codec's answer. */
#pragma once

#include <cstdint>

#include <gio/gio.h>

#include <kesto/proto.h>

/* Reads one key; with bit 13 of `flags` clear, all keys at or below it. A new reference, or NULL. */
GVariant *data_read_callback(Proto *handle, uint32_t flags, const char *key);

/* Writes one key. The data service's result, or -1. With bit 12 of `type` set it is a lock: nobody is refused, and the
 * result is 0. */
int data_write_callback(Proto *handle, uint32_t type, const char *key, const char *value);

/* Writes all pairs; when one key is refused, no pair is written. A pair whose key or value is NULL is skipped. 0 or -1.
 * Each out parameter may be NULL; the list is new and the caller's (g_strfreev). */
int data_multiwrite_callback(Proto *handle, uint32_t count, const char *const *keys, const char *const *values,
                             uint32_t *result_count, char ***results);
