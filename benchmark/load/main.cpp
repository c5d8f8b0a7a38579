// bench-load: all the clients and the reporting device, against whatever serves on this machine's ports.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
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

static const std::map<std::string_view, Figures (*)(pid_t, int)> measurements = {
    {"measure",  measure         },
    {"commands", measure_commands},
    {"events",   measure_events  },
};

int main(int argc, char **argv) try {
    const std::string_view mode = argc > 1 ? argv[1] : "";
    raise_descriptor_limit();
    if (const auto measurement = measurements.find(mode); measurement != measurements.end() && argc == 4) {
        const pid_t process = std::stoi(argv[2]);
        const int effort = std::max(1, std::stoi(argv[3]));
        puts(nlohmann::json(measurement->second(process, effort)).dump().c_str());
    } else if (mode == "count" && argc == 2) {
        work_in_steps();
    } else {
        fputs("usage: bench-load measure|commands|events PID EFFORT | bench-load count\n", stderr);
        return EX_USAGE;
    }
    return EXIT_SUCCESS;
} catch (const std::exception &error) {
    fprintf(stderr, "bench-load: %s\n", error.what());
    return EXIT_FAILURE;
}
