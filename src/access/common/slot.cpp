#include "common/slot.h"

#include <cassert>

static constexpr const char *marks[slot_id_last + 1] = {"?", "-", "D", "+"};

static uint32_t detected_id = 0;

uint32_t slot_id() { return detected_id; }

void slot_set_id(uint32_t id) {
    assert(id <= slot_id_last);
    detected_id = id;
}

const char *slot_mark() { return marks[detected_id]; }
