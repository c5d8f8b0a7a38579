#include "process.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace fs = std::filesystem;

static double clock_us(clockid_t clock) {
    timespec time = {};
    if (clock_gettime(clock, &time) != 0) throw std::runtime_error("the measured process has ended");
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

static double cpu_us(pid_t process) {
    clockid_t clock;
    if (clock_getcpuclockid(process, &clock) != 0) throw std::runtime_error("there is no such process");
    return clock_us(clock);
}

double now_us() { return clock_us(CLOCK_MONOTONIC); }

static fs::path folder_of(pid_t process) { return fs::path("/proc") / std::to_string(process); }

// The number in the line "NAME: NUMBER" of a status file; 0 without such a line.
static long status_number(const fs::path &status, const std::string &name) {
    std::ifstream lines(status);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(name + ":")) return std::stol(line.substr(name.size() + 1));
    }
    return 0;
}

static long sleep_count(pid_t process) {
    long count = 0;
    for (const fs::directory_entry &thread : fs::directory_iterator(folder_of(process) / "task"))
        count += status_number(thread.path() / "status", "voluntary_ctxt_switches");
    return count;
}

Cost cost_of(pid_t process, const std::function<void()> &work) {
    const long sleeps_before = sleep_count(process);
    const double cpu_before = cpu_us(process), before = now_us();
    work();
    const double cpu = cpu_us(process) - cpu_before, time = now_us() - before;
    return {cpu, time, static_cast<double>(sleep_count(process) - sleeps_before)};
}

double resident_kib(pid_t process) {
    return static_cast<double>(status_number(folder_of(process) / "status", "VmRSS"));
}

int descriptor_count(pid_t process) {
    const fs::directory_iterator descriptors(folder_of(process) / "fd");
    return static_cast<int>(std::distance(fs::begin(descriptors), fs::end(descriptors)));
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}
