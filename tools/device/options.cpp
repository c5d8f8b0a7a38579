#include "options.h"

#include <cstdio>
#include <cstdlib>

#include <gio/gio.h>

#include "activity.h"
#include "faults.h"

static constexpr const char *summary =
    "The data and audio services of an amplifier, simulated: com.quillmont.kesto.Data and com.quillmont.kesto.Audio\n"
    "on the session bus. Prints one line when it serves, then one for each client that comes or goes and for each\n"
    "alarm and change of its own.";

static constexpr const char *notes =
    "Write gives 0, -1 for a key that the device does not have, -3 when the store cannot be written; MultiWrite gives\n"
    "\"OK\", \"NO SUCH KEY\" or \"NOT STORED\". A write of type bit 0x1000 is a lock and changes nothing.\n"
    "The store is a text file, [Values] and lines KEY=VALUE; keys in it that the device lacks are added.\n"
    "\n"
    "While it runs, it can be steered (the store keeps a changed value too):\n"
    "  gdbus call --session -d com.quillmont.kesto.Data -o /com/quillmont/kesto/Device \\\n"
    "      -m com.quillmont.kesto.Device.Control.Alarm 40 91.5 3\n"
    "and likewise Change KEY VALUE TYPE, LoadSnapshot SLOT, LoadSpeakerPreset, Fault METHOD[:KEY]=KIND.\n"
    "\n"
    "Example: an alarm every 5 s, a value that changes twice a second, writes kept, and one slow key:\n"
    "  kesto-device --alarm-every 5 --change-every 0.5 --store /tmp/device.store \\\n"
    "      --fault read:/Device/Config/PROJECT_INFO=late:300\n"
    "\n"
    "Ends with 0 on SIGINT or SIGTERM; 64 for a wrong command line, 65 for a store that cannot be read or made,\n"
    "69 when there is no bus, a name is taken or the bus goes away, 70 by the fault \"die\".\n";

static bool complain(const std::string &what) {
    fprintf(stderr, "kesto-device: %s (see kesto-device --help)\n", what.c_str());
    return false;
}

static bool is_period(double seconds) { return seconds == 0 || (seconds >= period_min_s && seconds <= period_max_s); }

static std::string period_problem() {
    g_autofree char *text = g_strdup_printf("S is 0, for never, or from %g to %g", period_min_s, period_max_s);
    return text;
}

static GOptionEntry option(const char *name, GOptionArg kind, void *value, const char *help,
                           const char *word = nullptr) {
    return {name, 0, 0, kind, value, help, word};
}

bool options_read(int argc, char **argv, Options &options) {
    g_autofree char *store = nullptr;
    g_auto(GStrv) faults = nullptr;
    gboolean trace = FALSE, version = FALSE;
    // File names are taken as they are, whatever the locale; the faults as well, since keys may hold any letter.
    const GOptionEntry entries[] = {
        option("store", G_OPTION_ARG_FILENAME, &store, "Keep what is written in FILE", "FILE"),
        option("alarm-every", G_OPTION_ARG_DOUBLE, &options.alarm_every_s, "Raise an alarm every S seconds", "S"),
        option("change-every", G_OPTION_ARG_DOUBLE, &options.change_every_s, "Change a value every S seconds", "S"),
        option("fault", G_OPTION_ARG_FILENAME_ARRAY, &faults, "Misbehave (below); can be repeated", "FAULT"),
        option("trace", G_OPTION_ARG_NONE, &trace, "Print each call: \"Read (uint32 0, '/')\""),
        option("version", G_OPTION_ARG_NONE, &version, "Print the version"),
        {},
    };
    g_autoptr(GOptionContext) context = g_option_context_new(nullptr);
    g_option_context_add_main_entries(context, entries, nullptr);
    g_option_context_set_summary(context, summary);
    g_autofree char *description = g_strconcat(fault_syntax, "\n\n", notes, nullptr);
    g_option_context_set_description(context, description);

    g_autoptr(GError) error = nullptr;
    if (!g_option_context_parse(context, &argc, &argv, &error)) return complain(error->message);
    if (version) {
        printf("kesto-device %s\n", KESTO_VERSION);
        exit(EXIT_SUCCESS);
    }
    if (argc > 1) return complain(std::string("unexpected argument \"") + argv[argc - 1] + "\"");
    if (!is_period(options.alarm_every_s) || !is_period(options.change_every_s)) return complain(period_problem());

    if (store) options.store = store;
    for (char **fault = faults; fault && *fault; fault++) options.faults.emplace_back(*fault);
    options.trace = trace;
    return true;
}
