/* A device that goes away falls silent, as one without events does. A question now and then tells the two apart. */
#include "watch.h"

#include <algorithm>

#include <glib.h>

#include "discovery.h"
#include "failure.h"
#include "output.h"

static constexpr gint64 us_per_ms = 1000;
static constexpr gint64 ask_every_us = 5000 * us_per_ms;

/* Of the static discovery text. */
static constexpr size_t static_field_count = 8, static_model = 0, static_serial = 6;

static Source source_of(Session &session) {
    Source source{session.account.login.address, "", ""};
    const std::vector<std::string> fields = split_discovery_text(session_static_discovery(session));
    if (fields.size() != static_field_count) return source;
    source.model = fields[static_model];
    source.serial = fields[static_serial];
    return source;
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
        print_saying(options.json, say_published_by(source, *message));
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
