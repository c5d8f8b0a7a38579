#include "log.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <mosquitto.h>

static constexpr int lines_at_once = 100;
static constexpr int lines_per_second = 5;
static constexpr size_t longest_line = 1000;  // what others send can be as long as they like

using Clock = std::chrono::steady_clock;

/* Lines that may be written now: so many at once, then so many a second. */
struct Allowance {
    double lines = lines_at_once;
    Clock::time_point at = Clock::now();
    int left_out = 0;
};
static Allowance allowance;

static bool may_write() {
    const Clock::time_point now = Clock::now();
    allowance.lines += std::chrono::duration<double>(now - allowance.at).count() * lines_per_second;
    allowance.lines = std::min<double>(allowance.lines, lines_at_once);
    allowance.at = now;
    if (allowance.lines < 1) {
        ++allowance.left_out;
        return false;
    }
    --allowance.lines;
    return true;
}

static bool is_control(char letter) {
    const auto byte = static_cast<unsigned char>(letter);
    return byte < 0x20 || byte == 0x7F;
}

static bool is_no_ascii(char letter) { return static_cast<unsigned char>(letter) > 0x7F; }

static std::string shown(const std::string &line) {
    std::string text = line.substr(0, longest_line);
    std::replace_if(text.begin(), text.end(), is_control, '?');
    if (mosquitto_validate_utf8(text.c_str(), static_cast<int>(text.size())) != MOSQ_ERR_SUCCESS)
        std::replace_if(text.begin(), text.end(), is_no_ascii, '?');
    return line.size() > longest_line ? text + "..." : text;
}

void say(const std::string &line) {
    if (!may_write()) return;
    if (allowance.left_out > 0) fprintf(stderr, "kesto-mqtt: %d lines were left out\n", allowance.left_out);
    allowance.left_out = 0;
    fprintf(stderr, "kesto-mqtt: %s\n", shown(line).c_str());
}
