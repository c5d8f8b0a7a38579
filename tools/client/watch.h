/* watch.h - the command that shows what a device publishes, as it comes. */
#pragma once

#include "options.h"

/* Until Ctrl-C, --count events or --for seconds; all three are a good end. Fails when the device stops answering. */
int run_watch(const Options &options);
