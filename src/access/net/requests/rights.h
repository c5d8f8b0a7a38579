/* rights.h - which keys a client's user may read and write. Network thread only. */
#pragma once

#include <cstdint>

#include <kesto/proto.h>

/* May the handle's client do `operation` (PROTO_OPERATION_…) on `key`? `recursive` is meaningful for reads. Keys are
 * compared whole and exactly. 1 allowed; 0 refused, also for a NULL or empty key, an unknown operation and a handle
 * without a client. The codec's authorization callback. */
int key_authorized(Proto *handle, uint32_t operation, const char *key, uint32_t recursive);
