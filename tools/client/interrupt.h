/* interrupt.h - Ctrl-C and SIGTERM end a wait, and then the command in its own way. */
#pragma once

void catch_interrupts();
bool is_interrupted();
