#include "net/device/discovery_text.h"

size_t discovery_text_write(std::span<const std::string_view> fields, char (&text)[discovery_text_size]) {
    size_t length = 0;
    const auto append = [&](std::string_view piece) { length += piece.copy(text + length, sizeof(text) - 1 - length); };
    append(framing_start);
    append("D");
    for (const std::string_view &field : fields) {
        if (&field != fields.data()) append({&field_separator, 1});
        append(field);
    }
    append({&end_mark, 1});
    text[length] = '\0';
    return length;
}
