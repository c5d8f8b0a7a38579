#include "common/signals.h"

#include <pthread.h>
#include <signal.h>

static void change_mask(int how) {
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(how, &stop_signals, nullptr);
}

void stop_signals_block() { change_mask(SIG_BLOCK); }

void stop_signals_unblock() { change_mask(SIG_UNBLOCK); }
