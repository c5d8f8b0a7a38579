/* target.h - what each fuzz target defines, and clang's fuzzer or replay.cpp calls. */
#pragma once

#include <cstddef>
#include <cstdint>

/* Once for each input; aborts when the code under test has gone wrong. Returns 0. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
