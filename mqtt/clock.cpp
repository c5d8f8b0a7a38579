#include "clock.h"

#include <chrono>
#include <cstdio>
#include <ctime>

std::int64_t clock_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

std::string time_of_day_text() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts = {};
    gmtime_r(&now.tv_sec, &parts);
    char seconds[32], text[48];
    strftime(seconds, sizeof(seconds), "%FT%T", &parts);
    snprintf(text, sizeof(text), "%s.%03ldZ", seconds, now.tv_nsec / 1000000);
    return text;
}
