/* counted.h - the same few kinds of work in known numbers, for an observer that counts what one piece of work costs. */
#pragma once

/* For each kind of work prints "begin NAME COUNT" on standard output and waits for a line on standard input, does the
 * work, prints "end NAME COUNT" and waits again; the observer reads its counters meanwhile. Throws std::runtime_error.
 */
void work_in_steps();
