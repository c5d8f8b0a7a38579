/* discovery_text.h - the form that both discovery texts of the device have, and a client's request likewise: fields
 * with the byte 0x1C between them, "!" behind the last. */
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

constexpr char field_separator = '\x1c', end_mark = '!';

/* With the terminator. */
constexpr size_t discovery_text_size = 8192;

/* Writes "@?D" and the fields, one behind the other, cut to what fits. The length, without the terminator. */
size_t discovery_text_write(std::span<const std::string_view> fields, char (&text)[discovery_text_size]);
