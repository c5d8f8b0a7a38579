/* target.h - what each fuzz target defines, and clang's fuzzer or replay.cpp calls; and what targets share. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

/* Once for each input; aborts when the code under test has gone wrong. Returns 0. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

inline void require(bool holds) {
    if (!holds) abort();
}

/* An input that is taken piece by piece; behind its end there is nothing, and a byte of it is 0. */
struct FuzzInput {
    std::string_view left;

    FuzzInput(const uint8_t *data, size_t size) : left(reinterpret_cast<const char *>(data), size) {}

    std::string_view bytes(size_t count) {
        const std::string_view taken = left.substr(0, count);
        left.remove_prefix(taken.size());
        return taken;
    }
    uint8_t byte() {
        const std::string_view one = bytes(1);
        return one.empty() ? 0 : static_cast<uint8_t>(one[0]);
    }
};
