/* kesto-mqtt - publishes the amplifiers of a hall on an MQTT broker, and takes sets from there. */
#include <csignal>
#include <exception>
#include <mosquitto.h>
#include <sys/resource.h>

#include "bridge.h"
#include "log.h"

/* Before the first thread, so that no other thread takes the signals either. */
static void set_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

/* Each device takes five descriptors. */
static void raise_descriptor_limit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

int main(int argc, char **argv) {
    set_signals();
    raise_descriptor_limit();
    mosquitto_lib_init();
    int status = 0;
    try {
        const Options options = read_options(argc, argv);
        Bridge(options).run();
    } catch (const std::exception &exception) {
        say(exception.what());
        status = 1;
    }
    mosquitto_lib_cleanup();
    return status;
}
