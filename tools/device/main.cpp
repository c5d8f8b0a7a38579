/* kesto-device: an amplifier's data and audio services, simulated, so that the access service can be run and tried
 * on any machine. */
#include <clocale>
#include <csignal>
#include <cstdio>
#include <glib-unix.h>
#include <sysexits.h>

#include "activity.h"
#include "options.h"
#include "services.h"

static bool apply_faults(Device &device, const Options &options) {
    for (const std::string &text : options.faults) {
        const std::string wrong = faults_apply(device.faults, text);
        if (wrong.empty()) continue;
        fprintf(stderr, "kesto-device: %s (see kesto-device --help)\n", wrong.c_str());
        return false;
    }
    return true;
}

static gboolean end_loop(void *argument) {
    g_main_loop_quit(static_cast<Device *>(argument)->loop);
    return G_SOURCE_CONTINUE;
}

/* The exit status, when all is done or as soon as something is missing. */
static int run(Device &device, const Options &options) {
    device.trace = options.trace;
    device.tree = tree_of_device();
    if (!apply_faults(device, options)) return EX_USAGE;
    if (!options.store.empty() && !store_open(device.store, options.store, device.tree)) return EX_DATAERR;

    device.loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGINT, end_loop, &device);
    g_unix_signal_add(SIGTERM, end_loop, &device);
    if (!services_start(device)) return EX_UNAVAILABLE;
    activity_start(device, options.alarm_every_s, options.change_every_s);
    g_main_loop_run(device.loop);
    return device.exit_status;
}

int main(int argc, char **argv) {
    setlocale(LC_CTYPE, "");              // for the help's texts
    setvbuf(stdout, nullptr, _IOLBF, 0);  // others read our lines through a pipe and wait for them
    Options options;
    if (!options_read(argc, argv, options)) return EX_USAGE;

    Device device;
    const int status = run(device, options);
    services_stop(device);
    store_close(device.store);
    g_clear_pointer(&device.loop, g_main_loop_unref);
    return status;
}
