/* A device that is gone is as silent as one without events. A request every few seconds tells the two apart. */
#include "watch.h"

#include <algorithm>

#include <glib.h>

#include "discovery.h"
#include "failure.h"
#include "output.h"

static constexpr gint64 ask_every_us = 5000 * us_per_ms;

static Source source_of(Session &session) {
    const std::string &address = session.account.login.address;
    const std::optional<Device> device = device_from_static_text(session_static_discovery(session));
    if (!device) return {address, "", ""};
    return {address, device->fields[field_model], device->fields[field_serial]};
}

static void watch_events(Session &session, const Options &options) {
    const gint64 begin_us = g_get_monotonic_time();
    const gint64 end_us = options.for_ms > 0 ? begin_us + options.for_ms * us_per_ms : G_MAXINT64;
    gint64 ask_us = begin_us;
    const Source source = source_of(session);
    for (int shown_count = 0; !zsys_interrupted && (options.count == 0 || shown_count < options.count);) {
        const gint64 now_us = g_get_monotonic_time();
        if (now_us >= end_us) return;
        if (now_us >= ask_us) {
            session_change_count(session);
            ask_us = now_us + ask_every_us;
        }
        const gint64 wait_us = std::min(end_us, ask_us) - now_us;
        const std::optional<wire::Message> message =
            receive_published(session.events, static_cast<int>(std::max<gint64>(wait_us / us_per_ms, 1)));
        if (!message) continue;
        print_output(options.json, format_published_by(source, *message));
        ++shown_count;
    }
}

int run_watch(const Options &options) {
    with_session(options, [&](Session &session) {
        session_listen(session);
        try {
            watch_events(session, options);
        } catch (const Failure &failure) {
            if (failure.status != ExitStatus::interrupted) throw;  // Ctrl-C is how one ends it
        }
    });
    return static_cast<int>(ExitStatus::fine);
}
