/* faults.h - how the data service is told to misbehave, call by call. */
#pragma once

#include <string>
#include <vector>

#include <gio/gio.h>

enum class DataMethod { read, write, multi_write };

enum class FaultKind {
    late,    // carried out at once, answered after `late_ms`
    never,   // not carried out, not answered
    error,   // not carried out, a D-Bus error
    type,    // carried out, answered with another type
    empty,   // carried out, answered with "()"
    refuse,  // a write only: not carried out, a negative result
    die,     // the process ends at once, unanswered
};

struct Fault {
    DataMethod method;
    std::string key;  // empty: every call of the method
    FaultKind kind;
    guint late_ms;
};

using Faults = std::vector<Fault>;  // at most one for each method and key

/* Applies "METHOD[:KEY]=KIND" as `fault_syntax` describes it; it takes the place of one for the same method and key.
 * Empty when it was applied, else what is wrong with it, and nothing has changed. */
std::string faults_apply(Faults &faults, const std::string &text);

/* The fault for a call with these keys: one for any of them goes before one for the whole method. NULL when none
 * fits. Valid until the next faults_apply. */
const Fault *faults_find(const Faults &faults, DataMethod method, const std::vector<std::string> &keys);

/* For --help. */
extern const char *const fault_syntax;
