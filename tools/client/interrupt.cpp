#include "interrupt.h"

#include <csignal>

static volatile std::sig_atomic_t caught = 0;

static void note(int) { caught = 1; }

void catch_interrupts() {
    struct sigaction action {};
    action.sa_handler = note;  // without SA_RESTART: what waits is to return
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool is_interrupted() { return caught != 0; }
