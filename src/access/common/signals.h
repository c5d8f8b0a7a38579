/* signals.h - which thread takes SIGINT and SIGTERM. Only the network thread does, and not while it starts or stops a
 * monitor, when a signal would spoil it. The functions change the calling thread's mask; new threads inherit it. */
#pragma once

#include <csignal>

void stop_signals_block();
void stop_signals_unblock();

/* Whether one of them has come and waits for a thread that does not block it. Any thread. */
bool stop_signal_waits();

/* Keeps both signals waiting while it lives; then the mask is what it was. */
struct StopSignalsHeld {
    StopSignalsHeld();
    ~StopSignalsHeld();
    StopSignalsHeld(const StopSignalsHeld &) = delete;
    StopSignalsHeld &operator=(const StopSignalsHeld &) = delete;

    sigset_t before; /* the mask to restore */
};
