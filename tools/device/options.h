/* options.h - the command line. */
#pragma once

#include <string>
#include <vector>

struct Options {
    std::string store;                             // empty: none
    double alarm_every_s = 0, change_every_s = 0;  // 0: never
    std::vector<std::string> faults;               // as given, not yet checked
    bool trace = false;
};

/* Reads the command line. --help and --version print and end the process with 0.
 * False, with one line on standard error, when it is wrong. */
bool options_read(int argc, char **argv, Options &options);
