#include "check.h"

#include <array>
#include <cstdio>

#include <glib.h>

#include "output.h"
#include "steps.h"

enum class Outcome { holds, fails, not_checked };
static constexpr std::array<const char *, 3> outcome_texts = {"OK", "FAILED", "not checked"};

struct CheckResult {
    Outcome outcome;
    std::string seen;
};

static constexpr const char *line_format = "%-50s  %-11s  %s";

static Output format_result(const char *name, const CheckResult &result) {
    const char *outcome = outcome_texts[static_cast<size_t>(result.outcome)];
    g_autofree char *text = g_strdup_printf(line_format, name, outcome, printable(result.seen).c_str());
    return {
        {{"check", name}, {"outcome", outcome}, {"seen", result.seen}},
        text
    };
}

static void print_head() {
    g_autofree char *head = g_strdup_printf(line_format, "check", "outcome", "seen");
    print_output(false, {{}, head});
}

static bool is_there(const Account &account) { return accepts_connections(account.login, account.timeout_ms); }

/* A device that does not answer discovery may still take logins; the checks then show which of the two fails. */
static void require_device(const Account &account) {
    const std::string &address = account.login.address;
    if (is_there(account) || !discover_devices({address, account.client_id, account.timeout_ms}).empty()) return;
    throw not_reachable("no device answers at " + address);
}

static void renew_session(Visit &visit) {
    if (!visit.session) return;
    try {
        visit_reopen_session(visit);
    } catch (const Failure &) {  // the checks that need one say so
    }
}

static CheckResult make_check(Visit &visit, const VisitStep &step) {
    try {
        return {Outcome::holds, step.run(visit)};
    } catch (const NotChecked &reason) {
        return {Outcome::not_checked, reason.why};
    } catch (const Failure &failure) {
        if (failure.status == ExitStatus::interrupted) throw;
        if (failure.status == ExitStatus::not_reachable) renew_session(visit);
        return {Outcome::fails, failure.sentence};
    }
}

static Account account_for_check(const Options &options) {
    Account account = account_named(account_from_options(options), "-check");
    if (!options.arguments.empty()) account.login.address = resolve_host(options.arguments[0]);
    return account;
}

int run_check(const Options &options) {
    const Account account = account_for_check(options);
    require_device(account);
    if (!options.json) print_head();

    Visit visit = visit_new(options, account, "written by the check");
    std::array<int, outcome_texts.size()> counts{};
    visit_walk(visit, [&](const VisitStep &step) {
        if (step.check_name == nullptr) return;
        const CheckResult result = make_check(visit, step);
        print_output(options.json, format_result(step.check_name, result));
        ++counts[static_cast<size_t>(result.outcome)];
        if (result.outcome == Outcome::fails && !is_there(visit.own.account))
            throw not_reachable("the device went away");
    });
    if (!options.json) printf("%d hold, %d failed, %d not checked\n", counts[0], counts[1], counts[2]);
    return static_cast<int>(counts[static_cast<size_t>(Outcome::fails)] == 0 ? ExitStatus::fine : ExitStatus::refused);
}
