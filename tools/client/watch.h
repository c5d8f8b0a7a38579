/* watch.h - the command that shows what a device publishes, as it comes. */
#pragma once

#include "options.h"

/* Until Ctrl-C, --count events or --for seconds; each with status 0. Throws a Failure when the device stops answering;
 * with --all it follows every device, over restarts, and those that come later. */
int run_watch(const Options &options);
