#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include <glib.h>

#include <kesto/device.h>
#include <kesto/process.h>
#include <kesto/proto.h>

#include "common/log.h"
#include "common/signals.h"
#include "common/slot.h"
#include "main/dbus_methods.h"
#include "main/lifecycle.h"

static constexpr const char *crash_dump_path = "/tmp/crash_access.dump";
static constexpr const char *bus_name = "com.quillmont.kesto.Access";
static constexpr const char *object_path = "/com/quillmont/kesto/Access";
static constexpr const char *interface_name = "com.quillmont.kesto.Access.Service";

static constexpr GOptionEntry no_options[] = {{}};

// Ends the process on an option that the parser does not know; the service has none of its own.
static void parse_command_line(GOptionContext *context, int argc, char **argv) {
    g_autoptr(GError) error = nullptr;
    g_option_context_add_main_entries(context, no_options, nullptr);
    if (g_option_context_parse(context, &argc, &argv, &error)) return;
    close_fault_dump();  // else the dump of a real crash would be overwritten
    g_error("option parsing failed: %s\n", error->message);
}

static void detect_slot() {
    if (slot_id() != 0) return;
    const int detected = kesto_detect_slot_id();
    if (static_cast<uint32_t>(detected) > slot_id_last) {
        LOG("not supported retcode for slotid: %d\n", detected);
        return;
    }
    slot_set_id(static_cast<uint32_t>(detected));
    LOG("slotid: %d %s\n", detected, slot_mark());
}

static void run_process(KestoProcess **owned) {
    KestoProcess *process = *owned;
    process->setting = 0;
    kesto_process_add_ops(process, &kesto_access_ops);
    kesto_process_add_dbus_methods(process, access_dbus_methods);
    kesto_process_run(process);
    kesto_process_destroy(owned);
}

static void close_platform() {
    close_fault_dump();
    proto_deinit();
}

// Else the first sockets would get their numbers, and what is printed would go out on them.
static void occupy_standard_streams() {
    int descriptor = -1;
    do {
        descriptor = open("/dev/null", O_RDWR);
    } while (descriptor != -1 && descriptor <= STDERR_FILENO);
    if (descriptor != -1) close(descriptor);
}

int main(int argc, char **argv) {
    occupy_standard_streams();
    signal(SIGPIPE, SIG_IGN);  // a log whose reader has gone is no reason to end
    stop_signals_block();      // before any thread exists, so that all but the network thread keep it so
    proto_init(1, 0);
    init_fault_dump(crash_dump_path);

    GOptionContext *context = g_option_context_new("");
    parse_command_line(context, argc, argv);
    detect_slot();
    g_option_context_free(context);

    KestoProcess *process = kesto_process_new(bus_name, object_path, interface_name, 0);
    if (process == nullptr) {
        fputs("impossible to register dbus object\n", stderr);
        close_platform();
        return -1;
    }
    run_process(&process);
    close_platform();
    LOG("stopped access\n");
    return EXIT_SUCCESS;
}
