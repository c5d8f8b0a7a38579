/* measured.h - the rows of the benchmark: what is asked of the measured process, how often, and what is recorded. */
#pragma once

#include <map>
#include <string>
#include <sys/types.h>

/* "read.10.cpu" -> 123.4. Times are microseconds; the table's rows name the units. */
using Figures = std::map<std::string, double>;

/* Loads a freshly started process for some 20 s. `effort` divides how often each thing is done: 1 measures, 20 only
 * shows that everything works. Throws std::runtime_error. */
Figures measure(pid_t process, int effort);

/* The rows about reads, authorizations and logins of one client and of ten, and those about events, alone. */
Figures measure_commands(pid_t process, int effort);
Figures measure_events(pid_t process, int effort);
