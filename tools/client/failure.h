/* failure.h - how every command of the client fails: by throwing a Failure, which main reports and turns into the exit
 * status. */
#pragma once

#include <string>

enum class ExitStatus {
    fine = 0,
    refused = 1,
    not_reachable = 2,
    usage = 64,
    interrupted = 130,  // Ctrl-C during a command that does not wait for it: 128 + SIGINT
};

struct Failure {
    ExitStatus status;
    std::string sentence;  // one line, without line break and without the program's name
};

inline Failure not_reachable(const std::string &why) { return {ExitStatus::not_reachable, "not reachable: " + why}; }

inline Failure refused(const std::string &why) { return {ExitStatus::refused, "refused: " + why}; }

inline Failure interrupted() { return {ExitStatus::interrupted, "interrupted"}; }
