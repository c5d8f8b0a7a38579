// bench-load: all the clients and the reporting device, against whatever serves on this machine's ports.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sysexits.h>

#include <nlohmann/json.hpp>

#include "counted.h"
#include "measured.h"

static void raise_descriptor_limit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

int main(int argc, char **argv) try {
    const std::string_view mode = argc > 1 ? argv[1] : "";
    raise_descriptor_limit();
    if ((mode == "measure" || mode == "events") && argc == 4) {
        const pid_t process = std::stoi(argv[2]);
        const int effort = std::max(1, std::stoi(argv[3]));
        const Figures figures = mode == "measure" ? measure(process, effort) : measure_events(process, effort);
        puts(nlohmann::json(figures).dump().c_str());
    } else if (mode == "count" && argc == 2) {
        work_in_steps();
    } else {
        fputs("usage: bench-load measure|events PID EFFORT | bench-load count\n", stderr);
        return EX_USAGE;
    }
    return EXIT_SUCCESS;
} catch (const std::exception &error) {
    fprintf(stderr, "bench-load: %s\n", error.what());
    return EXIT_FAILURE;
}
