#include "tour.h"

#include <glib.h>

#include "output.h"
#include "steps.h"

static Output format_step(int number, const char *name, bool fine, const std::string &detail) {
    g_autofree char *text =
        g_strdup_printf("%2d  %-33s %-6s  %s", number, name, fine ? "OK" : "failed", printable(detail).c_str());
    return {
        {{"step", number}, {"name", name}, {"ok", fine}, {"detail", detail}},
        text
    };
}

/* A tour shows every step or fails. */
static std::string take_step(Visit &visit, const VisitStep &step) {
    try {
        return step.run(visit);
    } catch (const NotChecked &reason) {
        throw device_failure(reason.why);
    }
}

int run_tour(const Options &options) {
    Visit visit = visit_new(options, account_from_options(options), "written by the tour");
    int number = 0;
    visit_walk(visit, [&](const VisitStep &step) {
        const char *name = step.tour_name;
        if (name == nullptr) return;
        ++number;
        try {
            const std::string detail = take_step(visit, step);
            print_output(options.json, format_step(number, name, true, detail));
        } catch (const Failure &failure) {
            print_output(options.json, format_step(number, name, false, failure.sentence));
            throw Failure{failure.status, std::string("the tour failed to ") + name + ": " + failure.sentence};
        }
    });
    return static_cast<int>(ExitStatus::fine);
}
