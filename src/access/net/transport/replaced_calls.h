/* replaced_calls.h - the C library's calls that libzmq makes for its connections, replaced in this program. libzmq has
 * no setting for how many connections it may have, nor for what all together may hold; so each call tells the
 * connection table, and what the table refuses looks to libzmq like a peer that has gone. */
#pragma once

#include <cstddef>

/* Begins to count connections; `descriptors` is how many the process may have. Once, before anything listens. It is
 * also what links the calls into the program. */
void replaced_calls_init(size_t descriptors);
