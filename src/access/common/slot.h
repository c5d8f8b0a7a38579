/* slot.h - the slot that the device's service runs from. Set once by the main thread before any other thread exists. */
#pragma once

#include <cstdint>

constexpr uint32_t slot_id_last = 3;

/* 0 until detected. */
uint32_t slot_id();

/* `id` is at most slot_id_last. */
void slot_set_id(uint32_t id);

/* The one-character mark that discovery publishes: "?", "-", "D" or "+". */
const char *slot_mark();
