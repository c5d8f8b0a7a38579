/* signals.h - which thread takes SIGINT and SIGTERM. Only the network thread does, and not while it starts a monitor:
 * a signal in the middle of that would end the process. The mask is the calling thread's; threads inherit it. */
#ifndef ACCESS_COMMON_SIGNALS_H
#define ACCESS_COMMON_SIGNALS_H

void stop_signals_block();
void stop_signals_unblock();

#endif
