/* check.h - devices, real or simulated, held against the public contract point by point. */
#pragma once

#include "options.h"

/* Goes on after a check that failed. Returns refused when one did; throws not_reachable when the device is not there or
 * goes away meanwhile. Works under client ids of its own; values are put back and ids logged out in any case. */
int run_check(const Options &options);
