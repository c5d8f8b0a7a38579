/* counts.h - what did not get through, since the start of the program. */
#pragma once

#include <cstdint>
#include <string>

struct Counts {
    std::uint64_t values_overtaken = 0;  // by a later value of the same key before they could be published
    std::uint64_t alarms_dropped = 0;    // the broker was away, or slow, for too long
    std::uint64_t answers_dropped = 0;   // to sets, likewise
    std::uint64_t not_publishable = 0;   // a key that is no topic, a value that the broker refuses
    std::uint64_t sets_not_done = 0;

    bool operator==(const Counts &) const = default;
};

std::uint64_t drops(const Counts &counts); /* what nobody will get to see */

std::string counts_json(const Counts &counts);
std::string counts_sentence(const Counts &counts); /* on one line */
