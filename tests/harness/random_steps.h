/* random_steps.h - the seed and the length of a random walk, which the environment may set. */
#pragma once

#include <cstdlib>
#include <random>
#include <string_view>

inline size_t number_from(const char *variable, size_t otherwise) {
    const char *setting = getenv(variable);
    return setting != nullptr ? strtoul(setting, nullptr, 10) : otherwise;
}

/* "random" draws one. */
inline unsigned seed_from(const char *variable, size_t usual) {
    const char *wanted = getenv(variable);
    if (wanted != nullptr && std::string_view(wanted) == "random") return std::random_device{}();
    return static_cast<unsigned>(number_from(variable, usual));
}
