/* texts.h - lists of texts, and a text that may be absent. */
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

using Texts = std::vector<std::string>;

using OptionalText = std::optional<std::string>;  // std::nullopt: the message has no such field

using Pairs = std::vector<std::pair<OptionalText, OptionalText>>;  // a key and its value
