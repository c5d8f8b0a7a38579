/* log.h - what the program says while it runs: lines on standard error. */
#pragma once

#include <string>

/* One line, the end of a very long one cut off; what cannot be printed shows as "?". A flood of lines is cut short, and
 * how many were left out is said. */
void say(const std::string &line);
