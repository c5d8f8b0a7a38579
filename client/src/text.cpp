#include "text.h"

#include <cstdint>
#include <cstdio>

namespace kesto {

struct Lead {
    unsigned char mask, bits;
    size_t following;          // bytes behind the first one
    char32_t first_of_length;  // the lowest character that needs so many
};
static constexpr Lead leads[] = {
    {0x80, 0x00, 0, 1      }, // NUL is no part of a text
    {0xe0, 0xc0, 1, 0x80   },
    {0xf0, 0xe0, 2, 0x800  },
    {0xf8, 0xf0, 3, 0x10000},
};
static constexpr char32_t surrogates_first = 0xd800, surrogates_last = 0xdfff, last_character = 0x10ffff;
static constexpr unsigned following_bits = 6;

/* The length of the character that `text` begins with; 0 when it begins with none. */
static size_t character_length(std::string_view text) {
    const auto byte_at = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    for (const Lead &lead : leads) {
        if ((byte_at(0) & lead.mask) != lead.bits) continue;
        if (text.size() <= lead.following) return 0;
        char32_t character = static_cast<unsigned char>(byte_at(0) & ~lead.mask);
        for (size_t i = 1; i <= lead.following; ++i) {
            if ((byte_at(i) & 0xc0) != 0x80) return 0;
            character = (character << following_bits) | (byte_at(i) & 0x3f);
        }
        const bool is_surrogate = character >= surrogates_first && character <= surrogates_last;
        return character < lead.first_of_length || character > last_character || is_surrogate ? 0 : lead.following + 1;
    }
    return 0;
}

bool is_text(std::string_view text) {
    while (!text.empty()) {
        const size_t length = character_length(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string seconds_text(int milliseconds) {
    char text[32];
    snprintf(text, sizeof text, "%g s", static_cast<double>(milliseconds) / 1000);
    return text;
}

}  // namespace kesto
