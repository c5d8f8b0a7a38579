/* text.h - what may be a text of the contract. */
#pragma once

#include <string>
#include <string_view>

namespace kesto {

bool is_text(std::string_view text); /* UTF-8 without NUL bytes */

/* "5 s", "0.25 s" */
std::string seconds_text(int milliseconds);

}  // namespace kesto
