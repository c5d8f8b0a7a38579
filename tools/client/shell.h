/* shell.h - one session and many commands, typed at a prompt or read from standard input. */
#pragma once

#include "options.h"

/* Ends at quit, the end of input or Ctrl-C. A command that fails says so and the next one is read. At a terminal the
 * status is 0; otherwise it is that of the first command that failed. */
int run_shell(const Options &options);
