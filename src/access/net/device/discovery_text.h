/* discovery_text.h - the form of the discovery reply and of the static discovery text: "@?D", fields with the byte 0x1C
 * between them, "!" at the end. A client's request has the same marks, without the "D". */
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

constexpr std::string_view framing_start = "@?";
constexpr char field_separator = '\x1c', end_mark = '!';

/* With the terminator. */
constexpr size_t discovery_text_size = 8192;

/* Writes the text of these fields and terminates it; one that is too long is cut and then lacks its "!". The length,
 * without the terminator. */
size_t discovery_text_write(std::span<const std::string_view> fields, char (&text)[discovery_text_size]);
