#include "common/signals.h"

#include <pthread.h>

static void change_mask(int how, sigset_t *before) {
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(how, &stop_signals, before);
}

bool stop_signal_waits() {
    sigset_t waiting;
    return sigpending(&waiting) == 0 && (sigismember(&waiting, SIGINT) == 1 || sigismember(&waiting, SIGTERM) == 1);
}

void stop_signals_block() { change_mask(SIG_BLOCK, nullptr); }

void stop_signals_unblock() { change_mask(SIG_UNBLOCK, nullptr); }

StopSignalsHeld::StopSignalsHeld() { change_mask(SIG_BLOCK, &before); }

StopSignalsHeld::~StopSignalsHeld() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
