/* clock.h - the time, for pauses and for people. */
#pragma once

#include <cstdint>
#include <string>

std::int64_t clock_ms();        /* since some moment; never set back */
std::string time_of_day_text(); /* now, in UTC: "2026-11-25T18:23:13.250Z" */
